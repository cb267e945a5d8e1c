import { isActive } from './downloads.js';
import type { Download, Phase } from './downloads.js';
import { offers } from './host.js';
import type { HistoryEntry, Transfer } from './host.js';

export type CardAction = 'watch' | 'asItCame' | 'again' | 'pause' | 'resume' | 'cancel' | 'dismiss';

/** One download as the page shows it: what the bridge tells of it, and what the host remembers or adds. */
export interface Card {
  id: number;
  phase: Phase;
  name: string;
  album?: string;
  assetId?: string;
  download?: Download;
  entry?: HistoryEntry;
  transfer?: Transfer;
}

const phases: Partial<Record<HistoryEntry['state'], Phase>> = { pending: 'waiting', saved: 'saved', failed: 'failed' };

/** The active ones in the order of their turn, then those that have ended, the newest first. */
export function cardsOf(downloads: Download[], history: HistoryEntry[], transfers: Map<number, Transfer>): Card[] {
  const entries = new Map(history.map((entry) => [entry.id, entry]));
  const known = new Set(downloads.map(({ id }) => id));
  const cards = [
    ...downloads.map((download) => cardOf(download, entries.get(download.id), transfers.get(download.id))),
    ...history.filter(({ id }) => !known.has(id)).map((entry) => cardOf(undefined, entry, transfers.get(entry.id))),
  ].filter((card) => card !== undefined);
  const ended = cards.filter((card) => !isActive(card)).sort((a, b) => b.id - a.id);
  return [...cards.filter(isActive), ...ended];
}

/** Nothing for one that was cancelled: whoever did it knows. */
function cardOf(download?: Download, entry?: HistoryEntry, transfer?: Transfer): Card | undefined {
  const id = (download ?? entry)!.id;
  const told = download?.phase;
  // The bridge knows best what is under way; how something ended, the host knows better, once it knows that it has.
  const isBehind = entry?.state === 'pending' && told !== 'vanished';
  const phase = download && (isActive(download) || isBehind) ? told : ((entry && phases[entry.state]) ?? told);
  if (phase === undefined) return undefined;
  return {
    id,
    phase,
    name: entry?.filename ?? download?.filename ?? `Download ${id}`,
    album: entry?.album ?? download?.options?.album,
    assetId: entry?.assetId ?? download?.assetId,
    download,
    entry,
    transfer: phase === 'loading' ? transfer : undefined,
  };
}

/** What a person can do about it. */
export function actionsFor(card: Card, isPlayable: boolean): Set<CardAction> {
  const { phase, entry, download, transfer, assetId } = card;
  const actions = new Set<CardAction>();
  if (isActive(card)) {
    if (transfer && offers('changeDownload')) actions.add(transfer.paused ? 'resume' : 'pause');
    return actions.add('cancel');
  }
  // A file that was handed in has no address to come from once more.
  const mayRetry = entry ? offers('changeDownload') && Boolean(entry.url) : download?.options !== undefined;
  if (phase === 'failed' && entry?.maySaveAsItCame && mayRetry) actions.add('asItCame');
  if (phase === 'failed' && mayRetry) actions.add('again');
  if (phase === 'saved' && assetId !== undefined && isPlayable) actions.add('watch');
  return actions.add('dismiss');
}
