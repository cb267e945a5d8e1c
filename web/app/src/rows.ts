import { actionsFor } from './cards.js';
import type { Card, CardAction } from './cards.js';
import { isActive } from './downloads.js';
import type { Download, Phase } from './downloads.js';
import { byId, find, fromTemplate, hide, keepFocus, putAt, removeItem, setText } from './dom.js';
import { logPath } from './host.js';
import type { HistoryEntry, Transfer } from './host.js';
import { RepairReport } from './repair-report.js';
import { bytesText, secondsText, sentence, timeLeftText } from './text.js';

const phaseWords: Record<Phase, string> = {
  waiting: 'Waiting',
  loading: 'Downloading',
  processing: 'Processing',
  saved: 'Saved',
  failed: 'Not saved',
  vanished: 'Ended',
};

const actionWords: Record<CardAction, string> = {
  watch: 'Watch',
  asItCame: 'Save as it came',
  again: 'Try again',
  pause: 'Pause',
  resume: 'Go on',
  cancel: 'Cancel',
  dismiss: 'Dismiss',
};

interface Row {
  element: HTMLElement;
  report: RepairReport;
}

/** The list of downloads: one row for each, changed in place so that focus and screen readers keep their position. */
export class Rows {
  private readonly list = byId('downloads', HTMLOListElement);
  private readonly rows = new Map<number, Row>();

  constructor(
    onAction: (action: CardAction, id: number) => void,
    private readonly albumOf: (assetId: string) => string | undefined,
  ) {
    this.list.addEventListener('click', ({ target }) => {
      const button = target instanceof Element ? target.closest('button[data-action]') : null;
      const row = button?.closest<HTMLElement>('li.download');
      if (button instanceof HTMLElement && row) onAction(button.dataset.action as CardAction, Number(row.dataset.id));
    });
  }

  show(cards: Card[]): void {
    const shown = new Set(cards.map(({ id }) => id));
    for (const [id, { element }] of this.rows) {
      if (shown.has(id)) continue;
      removeItem(element, byId('downloads-title', HTMLElement));
      this.rows.delete(id);
    }
    keepFocus(() => {
      cards.forEach((card, index) => {
        const row = this.rows.get(card.id) ?? this.add(card.id);
        update(row, card, card.assetId === undefined ? undefined : this.albumOf(card.assetId));
        putAt(this.list, index, row.element);
      });
    });
  }

  private add(id: number): Row {
    const element = fromTemplate('download-row');
    element.dataset.id = String(id);
    const row = { element, report: new RepairReport(find(element, '.download-report', HTMLElement)) };
    this.rows.set(id, row);
    return row;
  }
}

/** `album` is the one that its video is in now, if that is known. */
function update({ element: row, report }: Row, card: Card, album: string | undefined): void {
  const { name } = card;
  const actions = actionsFor(card, album !== undefined);
  row.dataset.phase = card.phase;
  row.dataset.paused = String(card.transfer?.paused ?? false);
  setText(find(row, '.download-name', HTMLElement), name);
  setText(find(row, '.download-state', HTMLElement), stateWords(card));
  setText(find(row, '.download-detail', HTMLElement), detail(card, album));
  showReason(row, card);
  report.show(card.phase === 'saved' ? card.entry?.summary : undefined, name);

  const bar = find(row, 'progress', HTMLProgressElement);
  bar.hidden = !isActive(card);
  bar.setAttribute('aria-label', `Progress of ${name}`);
  const done = fraction(card);
  if (done === undefined) bar.removeAttribute('value');
  else bar.value = done;

  showActions(row, name, actions);
}

function showActions(row: HTMLElement, name: string, actions: Set<CardAction>): void {
  const buttons = [...row.querySelectorAll<HTMLElement>('button[data-action]')];
  const isOffered = (button: HTMLElement) => actions.has(button.dataset.action as CardAction);
  for (const button of buttons.filter(isOffered)) button.hidden = false;
  const first = buttons.find(isOffered) ?? null;
  for (const button of buttons) {
    hide(button, !isOffered(button), first);
    button.setAttribute('aria-label', `${actionWords[button.dataset.action as CardAction]}: ${name}`);
  }
}

function stateWords({ phase, entry, transfer }: Card): string {
  if (transfer?.paused) return 'Paused';
  if (phase !== 'saved' || !entry) return phaseWords[phase];
  if (entry.partly) return 'Saved in part';
  if (!entry.summary) return phaseWords.saved;
  return entry.summary.done.length > 0 ? 'Repaired and saved' : 'Saved as it came';
}

/** Why it failed or is not whole, what helps, and where more stands. */
function showReason(row: HTMLElement, { phase, entry, name }: Card): void {
  const line = find(row, '.download-reason', HTMLElement);
  const isTold = entry !== undefined && (phase === 'failed' || (phase === 'saved' && entry.partly === true));
  const sentences = isTold ? [entry.reason, entry.advice].filter(isSaid) : [];
  const words = sentences.map((said) => sentence(said, name)).join(' ');
  line.hidden = words === '';
  setText(line, words);
}

function isSaid(words: string | undefined): words is string {
  return words !== undefined && words !== '';
}

/** Of the bar; undefined when it is not known how far it is. */
function fraction({ phase, download, transfer }: Card): number | undefined {
  if (phase === 'waiting') return 0;
  const total = transfer?.expected ?? download?.total ?? 0;
  const bytes = Math.max(transfer?.received ?? 0, download?.bytes ?? 0);
  if (phase === 'loading') return total > 0 ? Math.min(1, bytes / total) : undefined;
  return download && download.percent > 0 ? download.percent / 100 : undefined;
}

function detail(card: Card, albumNow: string | undefined): string {
  const { phase, album, download, entry, transfer } = card;
  switch (phase) {
    case 'waiting':
      return 'Starts when another one is done';
    case 'loading':
      return transferDetail(download, transfer);
    case 'processing':
      return processingDetail(download);
    case 'saved':
      if (albumNow !== undefined) return `In the album ${albumNow}`;
      return album === undefined ? 'Saved into its album' : `Saved into the album ${album}`;
    case 'failed':
      return failureDetail(entry);
    case 'vanished':
      return 'It was cancelled, or it ended while this page was away.';
  }
}

function failureDetail(entry: HistoryEntry | undefined): string {
  if (!entry) return 'The video could not be fetched or saved. What happened stands in the log.';
  const log = logPath();
  const from = isSaid(entry.url) ? `From ${entry.url}. ` : '';
  return log === undefined ? from : `${from}More stands in the log: ${log}`;
}

function transferDetail(download?: Download, transfer?: Transfer): string {
  if (transfer?.retry) {
    const { number, most, seconds, why } = transfer.retry;
    return `Retrying in ${secondsText(Math.max(1, Math.ceil(seconds)))} (${number} of ${most}): ${why}`;
  }
  const bytes = Math.max(transfer?.received ?? 0, download?.bytes ?? 0);
  const total = transfer?.expected ?? download?.total ?? 0;
  const rate = transfer?.paused ? 0 : (download?.rate ?? 0);
  if (bytes <= 0 && total <= 0) return transfer?.paused ? 'Goes on when you say so' : 'Starting …';
  const parts = [total > 0 ? `${bytesText(bytes)} of ${bytesText(total)}` : bytesText(bytes)];
  if (rate > 0) parts.push(`${bytesText(rate)}/s`);
  if (rate > 0 && total > bytes) parts.push(timeLeftText((total - bytes) / rate));
  return parts.join(' · ');
}

function processingDetail(download?: Download): string {
  const { stage = '', percent = 0 } = download ?? {};
  if (stage === '') return 'Repairing and saving';
  return percent > 0 ? `${stage} · ${percent} %` : stage;
}
