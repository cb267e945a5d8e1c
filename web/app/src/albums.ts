import { byId, find, fromTemplate, putAt, setText } from './dom.js';
import { bytesText, countText, momentText } from './text.js';

/** A video of the photo library, as the host lists it. */
export interface Asset {
  id: string;
  filename: string;
  bytes: number;
  /** Unix seconds. */
  created: number;
  /** Where its file can be played from. */
  video: string;
}

interface Album {
  title: string;
  assets: Asset[];
}

/** The albums with their videos, newest first, playable in place. */
export class Albums {
  private readonly container = byId('albums', HTMLElement);
  private readonly cards = new Map<string, HTMLElement>(); // kept over refreshes, so that a playing video goes on
  private albums: Album[] = [];
  // The first picture of a video is only fetched when its card comes near.
  private readonly nearby = new IntersectionObserver(
    (entries) => {
      for (const { target, isIntersecting } of entries) {
        if (!isIntersecting || !(target instanceof HTMLVideoElement)) continue;
        target.preload = 'metadata';
        this.nearby.unobserve(target);
      }
    },
    { rootMargin: '200px' },
  );

  constructor(private readonly onChange: (titles: string[]) => void) {
    this.container.addEventListener('play', ({ target }) => this.pauseOthers(target), { capture: true });
  }

  /** Without a host that lists albums, the part of the page that shows them stays hidden. */
  async refresh(): Promise<void> {
    const answer = await fetch('albums', { cache: 'no-store' }).catch(() => null);
    if (!answer?.ok) return;
    this.albums = ((await answer.json()) as { albums: Album[] }).albums;
    for (const album of this.albums) album.assets.sort((a, b) => b.created - a.created);
    this.show();
    this.onChange(this.albums.map(({ title }) => title));
  }

  /** The newest video of this name since then, in the album of this title if that is known. */
  find(filename: string | undefined, since: number, title: string | undefined): Asset | undefined {
    return this.albums
      .filter((album) => title === undefined || album.title === title)
      .flatMap(({ assets }) => assets)
      .find((asset) => asset.filename === filename && asset.created >= since);
  }

  play(assetId: string): void {
    const card = this.cards.get(assetId);
    if (!card) return;
    const video = find(card, 'video', HTMLVideoElement);
    card.scrollIntoView({ block: 'center' });
    video.focus({ preventScroll: true });
    void video.play().catch(() => undefined); // it then shows by itself that it cannot be played
  }

  private show(): void {
    byId('albums-part', HTMLElement).hidden = false;
    byId('albums-empty', HTMLElement).hidden = this.albums.length > 0;
    const sections = new Map(
      [...this.container.children].map((child) => [(child as HTMLElement).dataset.title, child]),
    );
    const shown = this.albums.map((album) =>
      this.showAlbum(album, sections.get(album.title) ?? fromTemplate('album-section')),
    );
    for (const section of sections.values()) {
      if (!shown.includes(section)) section.remove();
    }
    shown.forEach((section, index) => putAt(this.container, index, section));
  }

  private showAlbum({ title, assets }: Album, section: Element): Element {
    (section as HTMLElement).dataset.title = title;
    setText(find(section, '.album-title', HTMLElement), title);
    setText(find(section, '.album-count', HTMLElement), countText(assets.length, 'video', 'videos'));
    const list = find(section, '.videos', HTMLElement);
    const cards = assets.map((asset) => this.cards.get(asset.id) ?? this.makeCard(asset));
    for (const old of [...list.children]) {
      if (!cards.includes(old as HTMLElement)) old.remove();
    }
    cards.forEach((card, index) => putAt(list, index, card));
    return section;
  }

  private makeCard(asset: Asset): HTMLElement {
    const card = fromTemplate('video-card');
    const video = find(card, 'video', HTMLVideoElement);
    video.src = asset.video;
    video.setAttribute('aria-label', asset.filename);
    this.nearby.observe(video);
    const name = find(card, '.video-name', HTMLElement);
    setText(name, asset.filename);
    name.title = asset.filename;
    setText(find(card, '.video-facts', HTMLElement), `${bytesText(asset.bytes)} · ${momentText(asset.created)}`);
    this.cards.set(asset.id, card);
    return card;
  }

  private pauseOthers(playing: EventTarget | null): void {
    for (const video of this.container.querySelectorAll('video')) {
      if (video !== playing) video.pause();
    }
  }
}
