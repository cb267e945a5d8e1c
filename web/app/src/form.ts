import { rejectionCode } from 'tarn-bridge';
import type { RejectionCode, SaveVideoOptions } from 'tarn-bridge';

import { announce, byId, find, setText } from './dom.js';
import { lastAlbum } from './memory.js';
import { messageOf, sentence, suggestedFilename } from './text.js';

type FieldName = 'url' | 'album' | 'filename';

const missing: Record<FieldName, string> = {
  url: 'Paste the address of a video.',
  album: 'Name the album that the video goes into. It is made when there is none.',
  filename: 'Give the file a name, for example holiday.mp4.', // where the address tells none
};

/** The field that a refusal is about, and what helps. */
const refusals: Partial<Record<RejectionCode, { field?: FieldName; hint: string }>> = {
  MISSING_URL: { field: 'url', hint: missing.url },
  MISSING_ALBUM: { field: 'album', hint: missing.album },
  MISSING_FILENAME: { field: 'filename', hint: missing.filename },
  INVALID_URL: {
    field: 'url',
    hint: 'A whole address is needed, without blanks, that begins with https:// or http://.',
  },
  PHOTOS_NOT_ALLOWED: {
    hint: 'Allow this application to use the photo library in the settings of the system, then try again.',
  },
};

/** The album of who has not named one yet. */
const firstAlbum = 'Tarn';

/** The form that starts a download. */
export class SaveForm {
  private readonly form = byId('save', HTMLFormElement);
  private readonly submit = find(this.form, 'button[type=submit]', HTMLButtonElement);
  private readonly fields: Record<FieldName, HTMLInputElement> = {
    url: byId('url', HTMLInputElement),
    album: byId('album', HTMLInputElement),
    filename: byId('filename', HTMLInputElement),
  };

  constructor(private readonly save: (options: SaveVideoOptions, isNamed: boolean) => Promise<void>) {
    const { url, album, filename } = this.fields;
    album.value = lastAlbum() ?? firstAlbum;
    url.addEventListener('input', () => (filename.placeholder = suggestedFilename(url.value)));
    for (const name of Object.keys(this.fields) as FieldName[]) {
      this.fields[name].addEventListener('input', () => this.showError(name, ''));
    }
    this.form.addEventListener('submit', (event) => {
      event.preventDefault();
      void this.send();
    });
  }

  /** The albums that are offered while one is typed. */
  offerAlbums(titles: string[]): void {
    const options = titles.map((title) => Object.assign(document.createElement('option'), { value: title }));
    byId('album-titles', HTMLDataListElement).replaceChildren(...options);
  }

  /** The album that is named now. */
  album(): string {
    return this.fields.album.value.trim() || firstAlbum;
  }

  private async send(): Promise<void> {
    if (this.submit.disabled || !this.isFilledIn()) return;
    const { url, filename } = this.fields;
    this.submit.disabled = true;
    try {
      const options = {
        url: url.value.trim(),
        album: this.album(),
        filename: filename.value.trim() || suggestedFilename(url.value),
        skipVideoFix: byId('skip-video', HTMLInputElement).checked,
        skipAudioFix: byId('skip-audio', HTMLInputElement).checked,
      };
      await this.save(options, filename.value.trim() !== '');
      this.showError('form', '');
      url.value = '';
      filename.value = '';
      filename.placeholder = '';
      url.focus();
    } catch (error) {
      this.showRefusal(error);
    } finally {
      this.submit.disabled = false;
    }
  }

  private isFilledIn(): boolean {
    const { url } = this.fields;
    if (url.value.trim() !== '') return true;
    this.showError('url', missing.url);
    url.focus();
    return false;
  }

  private showRefusal(error: unknown): void {
    const code = rejectionCode(error);
    const known = code && refusals[code];
    const told = sentence(messageOf(error));
    this.showError(known?.field ?? 'form', known ? `${told} ${known.hint}` : told);
    if (known?.field) this.fields[known.field].focus();
  }

  private showError(where: FieldName | 'form', words: string): void {
    const line = byId(`${where}-error`, HTMLElement);
    setText(line, words);
    line.hidden = words === '';
    if (words !== '') announce(words);
    if (where === 'form') return;
    if (words === '') this.fields[where].removeAttribute('aria-invalid');
    else this.fields[where].setAttribute('aria-invalid', 'true');
  }
}
