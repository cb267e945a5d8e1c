import { isActive } from './downloads.js';
import type { Download, Phase } from './downloads.js';
import { byId, find, fromTemplate, putAt, setText } from './dom.js';
import { bytesText, timeLeftText } from './text.js';

export type RowAction = 'cancel' | 'dismiss' | 'again' | 'watch';

const phaseWords: Record<Phase, string> = {
  waiting: 'Waiting',
  loading: 'Downloading',
  processing: 'Processing',
  saved: 'Saved',
  failed: 'Not saved',
  vanished: 'Ended',
};

const actionWords: Record<RowAction, string> = {
  watch: 'Watch',
  again: 'Try again',
  cancel: 'Cancel',
  dismiss: 'Dismiss',
};

/** The list of downloads: one row for each, changed in place so that focus and screen readers keep their position. */
export class Rows {
  private readonly list = byId('downloads', HTMLOListElement);
  private readonly rows = new Map<number, HTMLElement>();

  constructor(onAction: (action: RowAction, id: number) => void) {
    this.list.addEventListener('click', ({ target }) => {
      const button = target instanceof Element ? target.closest('button[data-action]') : null;
      const row = button?.closest('li');
      if (button instanceof HTMLElement && row) onAction(button.dataset.action as RowAction, Number(row.dataset.id));
    });
  }

  show(downloads: Download[]): void {
    const shown = new Set(downloads.map(({ id }) => id));
    for (const [id, row] of this.rows) {
      if (!shown.has(id)) this.remove(id, row);
    }
    const focused = document.activeElement;
    downloads.forEach((download, index) => {
      const row = this.rows.get(download.id) ?? this.add(download.id);
      update(row, download);
      putAt(this.list, index, row);
    });
    // A row that moves loses the focus.
    if (focused instanceof HTMLElement && focused !== document.activeElement) focused.focus({ preventScroll: true });
  }

  private add(id: number): HTMLElement {
    const row = fromTemplate('download-row');
    row.dataset.id = String(id);
    this.rows.set(id, row);
    return row;
  }

  private remove(id: number, row: HTMLElement): void {
    // Whoever was in this row goes on in its neighbour, not at the top of the page.
    if (row.contains(document.activeElement)) {
      const neighbour = row.nextElementSibling ?? row.previousElementSibling;
      (neighbour?.querySelector<HTMLElement>('button:not([hidden])') ?? byId('downloads-title', HTMLElement)).focus();
    }
    row.remove();
    this.rows.delete(id);
  }
}

function update(row: HTMLElement, download: Download): void {
  const name = download.filename ?? `Download ${download.id}`;
  row.dataset.phase = download.phase;
  setText(find(row, '.download-name', HTMLElement), name);
  setText(find(row, '.download-state', HTMLElement), phaseWords[download.phase]);
  setText(find(row, '.download-detail', HTMLElement), detail(download));

  const bar = find(row, 'progress', HTMLProgressElement);
  bar.hidden = !isActive(download);
  bar.setAttribute('aria-label', `Progress of ${name}`);
  const done = fraction(download);
  if (done === undefined) bar.removeAttribute('value');
  else bar.value = done;

  const offered: Record<RowAction, boolean> = {
    cancel: isActive(download),
    dismiss: !isActive(download),
    again: download.phase === 'failed' && download.options !== undefined,
    watch: download.phase === 'saved' && download.assetId !== undefined,
  };
  for (const button of row.querySelectorAll<HTMLElement>('button[data-action]')) {
    const action = button.dataset.action as RowAction;
    button.hidden = !offered[action];
    button.setAttribute('aria-label', `${actionWords[action]}: ${name}`);
  }
}

/** Of the bar; undefined when it is not known how far it is. */
function fraction({ phase, bytes, total, percent }: Download): number | undefined {
  if (phase === 'waiting') return 0;
  if (phase === 'loading') return total > 0 ? Math.min(1, bytes / total) : undefined;
  return percent > 0 ? percent / 100 : undefined;
}

function detail(download: Download): string {
  const album = download.options?.album;
  switch (download.phase) {
    case 'waiting':
      return 'Starts when another one is done';
    case 'loading':
      return transferDetail(download);
    case 'processing':
      return processingDetail(download);
    case 'saved':
      return album === undefined ? 'In its album' : `In the album ${album}`;
    case 'failed':
      return 'The video could not be fetched or saved. What happened stands in the log.';
    case 'vanished':
      return 'It was cancelled, or it ended while this page was away.';
  }
}

function transferDetail({ bytes, total, rate }: Download): string {
  if (bytes <= 0 && total <= 0) return 'Starting …';
  const parts = [total > 0 ? `${bytesText(bytes)} of ${bytesText(total)}` : bytesText(bytes)];
  if (rate > 0) parts.push(`${bytesText(rate)}/s`);
  if (rate > 0 && total > bytes) parts.push(timeLeftText((total - bytes) / rate));
  return parts.join(' · ');
}

function processingDetail({ stage, percent }: Download): string {
  if (stage === '') return 'Repairing and saving';
  return percent > 0 ? `${stage} · ${percent} %` : stage;
}
