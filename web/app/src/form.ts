import type { SaveVideoOptions } from 'tarn-bridge';

import { announce, byId, find, setText } from './dom.js';
import { lastAlbum } from './memory.js';
import { messageOf, suggestedFilename } from './text.js';

type FieldName = 'url' | 'album' | 'filename';

const missing: Record<FieldName, string> = {
  url: 'Paste the address of a video.',
  album: 'Name the album that the video goes into. It is made when there is none.',
  filename: 'Give the file a name, for example holiday.mp4.',
};

/** The engine's words for what it refuses, with the field that they are about and what helps. */
const refusals: Record<string, { field?: FieldName; hint: string }> = {
  'Must provide the data path': { field: 'url', hint: missing.url },
  'Must provide the album': { field: 'album', hint: missing.album },
  'Must provide filename': { field: 'filename', hint: missing.filename },
  'Invalid download URL.': {
    field: 'url',
    hint: 'A whole address is needed, without blanks, that begins with https:// or http://.',
  },
  'Access to photos not allowed by user': {
    hint: 'Allow this application to use the photo library in the settings of the system, then try again.',
  },
};

/** The form that starts a download. */
export class SaveForm {
  private readonly form = byId('save', HTMLFormElement);
  private readonly submit = find(this.form, 'button[type=submit]', HTMLButtonElement);
  private readonly fields: Record<FieldName, HTMLInputElement> = {
    url: byId('url', HTMLInputElement),
    album: byId('album', HTMLInputElement),
    filename: byId('filename', HTMLInputElement),
  };
  private isFilenameOwn = false; // the person has typed it; else it follows the address

  constructor(private readonly save: (options: SaveVideoOptions) => Promise<void>) {
    const { url, album, filename } = this.fields;
    album.value = lastAlbum() ?? '';
    url.addEventListener('input', () => {
      if (!this.isFilenameOwn) filename.value = suggestedFilename(url.value);
    });
    filename.addEventListener('input', () => (this.isFilenameOwn = filename.value !== ''));
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
    if (this.fields.album.value === '' && document.activeElement !== this.fields.album) {
      this.fields.album.value = titles[0] ?? '';
    }
  }

  private async send(): Promise<void> {
    if (this.submit.disabled || !this.isFilledIn()) return;
    const { url, album, filename } = this.fields;
    this.submit.disabled = true;
    try {
      await this.save({
        url: url.value.trim(),
        album: album.value.trim(),
        filename: filename.value.trim(),
        skipVideoFix: byId('skip-video', HTMLInputElement).checked,
        skipAudioFix: byId('skip-audio', HTMLInputElement).checked,
      });
      this.showError('form', '');
      url.value = '';
      filename.value = '';
      this.isFilenameOwn = false;
      url.focus();
    } catch (error) {
      this.showRefusal(messageOf(error));
    } finally {
      this.submit.disabled = false;
    }
  }

  private isFilledIn(): boolean {
    const empty = (Object.keys(this.fields) as FieldName[]).filter((name) => this.fields[name].value.trim() === '');
    for (const name of empty) this.showError(name, missing[name]);
    if (empty[0]) this.fields[empty[0]].focus();
    return empty.length === 0;
  }

  private showRefusal(words: string): void {
    const known = refusals[words];
    const sentence = /[.!?]$/.test(words) ? words : `${words}.`;
    this.showError(known?.field ?? 'form', known ? `${sentence} ${known.hint}` : sentence);
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
