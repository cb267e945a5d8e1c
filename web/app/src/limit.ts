import { TarnBridge } from 'tarn-bridge';

import { announce, byId, setText } from './dom.js';

const smallest = 1;
const largest = 10;

/** How many downloads may run at once, with a button for one less and one for one more. */
export class Limit {
  private readonly fewer = byId('limit-fewer', HTMLButtonElement);
  private readonly more = byId('limit-more', HTMLButtonElement);
  private limit: number | undefined; // until the engine has told it
  private changes = 0;

  constructor(onFailure: (error: unknown) => void) {
    this.fewer.addEventListener('click', () => void this.change(-1).catch(onFailure));
    this.more.addEventListener('click', () => void this.change(1).catch(onFailure));
  }

  async refresh(): Promise<void> {
    const before = this.changes;
    const { limit } = await TarnBridge.getDownloadLimit();
    if (this.changes === before) this.show(limit);
  }

  /** The new limit shows at once, so that quick clicks add up; of several answers the last one holds. */
  private async change(step: number): Promise<void> {
    if (this.limit === undefined) return;
    const wanted = this.limit + step;
    if (wanted < smallest || wanted > largest) return;
    const change = ++this.changes;
    this.show(wanted);
    const { limit } = await TarnBridge.setDownloadLimit({ limit: wanted });
    if (this.changes !== change) return;
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
