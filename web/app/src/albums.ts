import { byId, find, fromTemplate, keepFocus, putAt, removeItem, setText } from './dom.js';
import { VideoCard } from './video-card.js';
import type { Asset, VideoAction } from './video-card.js';
import { countText } from './text.js';
import { inTurn } from './turns.js';

interface Album {
  title: string;
  assets: Asset[];
}

/** The albums with their videos, newest first, playable in place. */
export class Albums {
  private readonly container = byId('albums', HTMLElement);
  private readonly title = byId('albums-title', HTMLElement);
  private readonly cards = new Map<string, VideoCard>(); // kept over refreshes, so that a playing video goes on
  private albums: Album[] = [];
  private readonly titles = new Map<string, string>(); // by the ids of their videos

  constructor(
    private readonly onChange: (titles: string[]) => void,
    private readonly onAction: (action: VideoAction, asset: Asset, album: string) => void,
  ) {
    this.container.addEventListener('play', ({ target }) => this.pauseOthers(target), { capture: true });
  }

  /** Without a host that lists albums, the part of the page that shows them stays hidden. */
  readonly refresh = inTurn(async () => {
    const answer = await fetch('albums', { cache: 'no-store' }).catch(() => null);
    if (!answer?.ok) return;
    this.albums = ((await answer.json()) as { albums: Album[] }).albums;
    this.titles.clear();
    for (const { title, assets } of this.albums) {
      assets.sort((a, b) => b.created - a.created);
      for (const { id } of assets) this.titles.set(id, title);
    }
    this.show();
    for (const id of this.cards.keys()) {
      if (!this.titles.has(id)) this.cards.delete(id);
    }
    this.onChange(this.albums.map(({ title }) => title));
  });

  /** The newest video of this name since then, in the album of this title if that is known. */
  find(filename: string | undefined, since: number, title: string | undefined): Asset | undefined {
    return this.albums
      .filter((album) => title === undefined || album.title === title)
      .flatMap(({ assets }) => assets)
      .find((asset) => asset.filename === filename && asset.created >= since);
  }

  /** The title of the album that holds it. */
  albumOf(assetId: string): string | undefined {
    return this.titles.get(assetId);
  }

  /** Goes to a video, if it is there. */
  focus(assetId: string): void {
    if (this.albumOf(assetId) !== undefined) this.cards.get(assetId)?.focus();
  }

  play(assetId: string): void {
    this.cards.get(assetId)?.play();
  }

  private show(): void {
    byId('albums-part', HTMLElement).hidden = false;
    const filled = this.albums.filter(({ assets }) => assets.length > 0);
    byId('albums-empty', HTMLElement).hidden = filled.length > 0;
    const sections = new Map(
      [...this.container.children].map((child) => [(child as HTMLElement).dataset.title, child]),
    );
    keepFocus(() => {
      const shown = filled.map((album) => this.showAlbum(album, sections.get(album.title) ?? fromTemplate('album-section')));
      for (const section of sections.values()) {
        if (!shown.includes(section)) removeItem(section, this.title);
      }
      shown.forEach((section, index) => putAt(this.container, index, section));
    });
  }

  private showAlbum({ title, assets }: Album, section: Element): Element {
    (section as HTMLElement).dataset.title = title;
    setText(find(section, '.album-title', HTMLElement), title);
    setText(find(section, '.album-count', HTMLElement), countText(assets.length, 'video', 'videos'));
    const list = find(section, '.videos', HTMLElement);
    const cards = assets.map((asset) => this.showCard(asset, title));
    const kept = new Set<Element>(cards);
    for (const old of [...list.children]) {
      if (!kept.has(old)) removeItem(old, this.title);
    }
    cards.forEach((card, index) => putAt(list, index, card));
    return section;
  }

  private showCard(asset: Asset, album: string): HTMLElement {
    let card = this.cards.get(asset.id);
    if (!card) {
      card = new VideoCard((action) => this.onAction(action, card!.asset, card!.album));
      this.cards.set(asset.id, card);
    }
    card.show(asset, album);
    return card.element;
  }

  private pauseOthers(playing: EventTarget | null): void {
    for (const video of this.container.querySelectorAll('video')) {
      if (video !== playing) video.pause();
    }
  }
}
