import { clearHistory, offers, readHistory } from './host.js';
import type { HistoryEntry } from './host.js';
import { inTurn } from './turns.js';

/** So many are shown at first, so that the albums stay near, and so many more at each wish. */
const first = 10;
const more = 25;

/** How the downloads of this home ended, as its host remembers it. Empty where no host does. */
export class History {
  private entries = new Map<number, HistoryEntry>();
  private limit = first;

  constructor(private readonly onChange: () => void) {}

  get isKept(): boolean {
    return offers('getHistory');
  }

  entry(id: number): HistoryEntry | undefined {
    return this.entries.get(id);
  }

  /** Newest first. */
  all(): HistoryEntry[] {
    return [...this.entries.values()];
  }

  /** What was known stays when the host cannot be asked: the connection's own notice tells of that. */
  readonly refresh = inTurn(async () => {
    if (!this.isKept) return;
    const entries = await readHistory(this.limit).catch(() => undefined);
    if (!entries) return;
    this.entries = new Map(entries.map((entry) => [entry.id, entry]));
    this.onChange();
  });

  /** Whether the host may remember more than what is known here. */
  mayHaveMore(): boolean {
    return this.entries.size >= this.limit;
  }

  async showMore(): Promise<void> {
    this.limit += more;
    await this.refresh();
  }

  async clear(which: true | number): Promise<void> {
    if (!this.isKept) return;
    await clearHistory(which);
    await this.refresh();
  }
}
