import { find, fromTemplate, setText } from './dom.js';
import { offers } from './host.js';
import { openMenu } from './menu.js';
import { fetchPoster } from './posters.js';
import { bytesText, momentText } from './text.js';

/** A video of the photo library, as the host lists it. */
export interface Asset {
  id: string;
  filename: string;
  bytes: number;
  /** Unix seconds. */
  created: number;
  /** Where its file lies on the host's machine. */
  path?: string;
  /** Where its file can be played from. */
  video: string;
}

export type VideoAction = 'edit' | 'open' | 'remove';

/** A video with two stops for the keyboard: its picture, which plays it, and a menu of all that can be done with it. */
export class VideoCard {
  readonly element = fromTemplate('video-card');
  asset!: Asset;
  album = '';

  private readonly screen = find(this.element, '.screen', HTMLElement);
  private readonly poster = find(this.element, '.poster', HTMLButtonElement);
  private readonly more = find(this.element, '.menu-button', HTMLButtonElement);

  constructor(onAction: (action: VideoAction) => void) {
    this.poster.addEventListener('click', () => this.play());
    this.more.addEventListener('click', () => {
      const change = (words: string, action: VideoAction) => ({ words, choose: () => onAction(action) });
      openMenu(this.more, `Actions for ${this.asset.filename}`, [
        { words: 'Download', href: `${this.asset.video}?download`, filename: this.asset.filename },
        ...(offers('showAsset') ? [change('Open its folder', 'open')] : []),
        ...(offers('changeAsset') ? [change('Rename or move …', 'edit'), change('Remove', 'remove')] : []),
      ]);
    });
  }

  show(asset: Asset, album: string): void {
    const isNew = this.asset === undefined;
    this.asset = asset;
    this.album = album;
    const { filename } = asset;
    this.poster.setAttribute('aria-label', `Play ${filename}`);
    this.more.setAttribute('aria-label', `Actions for ${filename}`);
    this.screen.querySelector('video')?.setAttribute('aria-label', filename);
    const name = find(this.element, '.video-name', HTMLElement);
    setText(name, filename);
    name.title = filename;
    setText(find(this.element, '.video-facts', HTMLElement), `${bytesText(asset.bytes)} · ${momentText(asset.created)}`);
    if (isNew) fetchPoster(asset.id, this.poster);
  }

  /** Where it was left for its menu. */
  focus(): void {
    this.more.focus();
  }

  play(): void {
    const video = this.screen.querySelector('video') ?? this.makePlayer();
    this.element.scrollIntoView({ block: 'center' });
    video.focus({ preventScroll: true });
    void video.play().catch(() => undefined); // it then shows by itself that it cannot be played
  }

  private makePlayer(): HTMLVideoElement {
    const video = document.createElement('video');
    video.controls = true;
    video.playsInline = true;
    video.src = this.asset.video;
    video.setAttribute('aria-label', this.asset.filename);
    this.screen.replaceChildren(video);
    return video;
  }
}
