import { TarnBridge } from 'tarn-bridge';

import { announce, byId, setText } from './dom.js';

const smallest = 1;
const largest = 10;

/** How many downloads may run at once, with a button for one less and one for one more. */
export class Limit {
  private readonly fewer = byId('limit-fewer', HTMLButtonElement);
  private readonly more = byId('limit-more', HTMLButtonElement);
  private limit = 0;

  constructor() {
    this.fewer.addEventListener('click', () => void this.set(this.limit - 1));
    this.more.addEventListener('click', () => void this.set(this.limit + 1));
  }

  async refresh(): Promise<void> {
    this.show((await TarnBridge.getDownloadLimit()).limit);
  }

  private async set(wanted: number): Promise<void> {
    if (this.limit === 0 || wanted < smallest || wanted > largest) return;
    const { limit } = await TarnBridge.setDownloadLimit({ limit: wanted });
    this.show(limit);
    announce(`Downloads at once: ${limit}`);
  }

  // A button that cannot go on keeps its focus, so it is not disabled.
  private show(limit: number): void {
    this.limit = limit;
    setText(byId('limit', HTMLElement), String(limit));
    this.fewer.setAttribute('aria-disabled', String(limit <= smallest));
    this.more.setAttribute('aria-disabled', String(limit >= largest));
  }
}
