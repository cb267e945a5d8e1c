import { announce, byId, find, hide, setText } from './dom.js';
import { changeAsset } from './host.js';
import { messageOf } from './text.js';
import type { Asset } from './video-card.js';

/** Removes videos, with a way back; renames and moves them. */
export class VideoChanges {
  private readonly bar = byId('undo', HTMLElement);
  private readonly undo = find(this.bar, '[data-action=undo]', HTMLButtonElement);
  private readonly dialog = byId('edit', HTMLDialogElement);
  private readonly filename = byId('edit-filename', HTMLInputElement);
  private readonly album = byId('edit-album', HTMLInputElement);
  private readonly error = byId('edit-error', HTMLElement);
  private removed: Asset | undefined;
  private edited: { asset: Asset; album: string } | undefined;

  constructor(
    private readonly onChange: () => Promise<void>,
    private readonly goTo: (assetId: string) => void,
    private readonly attempt: (action: () => Promise<void>) => Promise<void>,
  ) {
    this.undo.addEventListener('click', () => void this.attempt(() => this.restore()));
    find(this.bar, '[data-action=dismiss]', HTMLButtonElement).addEventListener('click', () => this.forget());
    find(this.dialog, 'form', HTMLFormElement).addEventListener('submit', (event) => {
      event.preventDefault();
      void this.save();
    });
    find(this.dialog, '[data-action=close]', HTMLButtonElement).addEventListener('click', () => this.dialog.close());
  }

  async remove(asset: Asset): Promise<void> {
    await changeAsset(asset.id, { action: 'remove' });
    this.removed = asset;
    const words = `${asset.filename} was removed.`;
    setText(byId('undo-words', HTMLElement), words);
    this.bar.hidden = false;
    this.undo.focus();
    announce(words);
    await this.onChange();
  }

  edit(asset: Asset, album: string): void {
    this.edited = { asset, album };
    this.filename.value = asset.filename;
    this.album.value = album;
    setText(byId('edit-path', HTMLElement), asset.path ?? '');
    this.showError('');
    this.dialog.showModal();
    this.filename.focus();
    // The name is what people change, not its ending. Of a long one its beginning is seen.
    const end = Math.max(asset.filename.lastIndexOf('.'), 0) || asset.filename.length;
    this.filename.setSelectionRange(0, end, 'backward');
  }

  private async restore(): Promise<void> {
    const asset = this.removed;
    if (!asset) return;
    await changeAsset(asset.id, { action: 'restore' });
    this.forget();
    announce(`${asset.filename} is back.`);
    await this.onChange();
    this.goTo(asset.id);
  }

  private forget(): void {
    this.removed = undefined;
    hide(this.bar, true, byId('albums-title', HTMLElement));
  }

  private async save(): Promise<void> {
    if (!this.edited) return;
    const { asset, album } = this.edited;
    const filename = this.filename.value.trim();
    const title = this.album.value.trim();
    if (filename === '' || title === '') return this.showError('A name and an album are needed.');
    try {
      if (filename !== asset.filename) await changeAsset(asset.id, { action: 'rename', filename });
      this.edited = { asset: { ...asset, filename }, album }; // where the move fails, the next attempt is one to move
      if (title !== album) await changeAsset(asset.id, { action: 'move', album: title });
      this.dialog.close();
    } catch (error) {
      this.showError(messageOf(error));
    }
    await this.onChange();
    if (!this.dialog.open) this.goTo(asset.id);
  }

  private showError(words: string): void {
    setText(this.error, words);
    this.error.hidden = words === '';
  }
}
