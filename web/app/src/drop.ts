import { announce, byId, setText } from './dom.js';
import { handIn, offers } from './host.js';
import { messageOf, sentence } from './text.js';

/** Takes files of this machine, dragged over the page or chosen, and hands them to the host one after another. */
export class Drop {
  private readonly words = byId('drop-words', HTMLElement);
  private readonly files = byId('drop-files', HTMLInputElement);
  private queue: Promise<void> = Promise.resolve();
  private failures: string[] = []; // of the latest drop: they stay to be read
  private depth = 0; // elements under the pointer that a drag has entered and not left

  constructor(
    private readonly albumName: () => string,
    private readonly onTaken: () => Promise<void>,
  ) {
    if (!offers('importLocal')) return;
    byId('drop', HTMLElement).hidden = false;
    byId('drop-choose', HTMLButtonElement).addEventListener('click', () => this.files.click());
    this.files.addEventListener('change', () => {
      this.take([...(this.files.files ?? [])]);
      this.files.value = '';
    });
    this.listen();
  }

  private listen(): void {
    const hasFiles = (event: DragEvent) => event.dataTransfer?.types.includes('Files') ?? false;
    const show = (change: number) => {
      this.depth = Math.max(0, this.depth + change);
      document.body.classList.toggle('dropping', this.depth > 0);
    };
    window.addEventListener('dragenter', (event) => hasFiles(event) && show(1));
    window.addEventListener('dragleave', (event) => hasFiles(event) && show(-1));
    window.addEventListener('dragover', (event) => hasFiles(event) && event.preventDefault());
    window.addEventListener('drop', (event) => {
      show(-this.depth);
      if (!hasFiles(event)) return;
      event.preventDefault();
      this.take([...(event.dataTransfer?.files ?? [])]);
    });
  }

  private take(files: File[]): void {
    const album = this.albumName();
    this.failures = [];
    for (const file of files) this.queue = this.queue.then(() => this.handIn(file, album));
  }

  private async handIn(file: File, album: string): Promise<void> {
    const show = (part: number) => this.show(`${file.name}: ${Math.round(part * 100)} % handed over`);
    show(0);
    try {
      await handIn(file, album, show);
      this.show('');
      announce(`${file.name}: taken in`);
      await this.onTaken();
    } catch (error) {
      const words = sentence(`${file.name}: ${messageOf(error)}`, file.name);
      this.failures.push(words);
      this.show('');
      announce(words);
    }
  }

  /** How far it is, behind what has failed. */
  private show(progress: string): void {
    const words = [...this.failures, progress].join(' ').trim();
    setText(this.words, words);
    this.words.hidden = words === '';
  }
}
