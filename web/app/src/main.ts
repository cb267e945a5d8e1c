import { Albums } from './albums.js';
import { cardsOf } from './cards.js';
import type { Card, CardAction } from './cards.js';
import { followConnection } from './connection.js';
import { announce, byId, hide, setText } from './dom.js';
import { Downloads, isActive } from './downloads.js';
import type { Download } from './downloads.js';
import { Drop } from './drop.js';
import { SaveForm } from './form.js';
import { History } from './history.js';
import { changeDownload, offers, onHostChange, openFolder, readTransfers } from './host.js';
import type { DownloadAction, Transfer } from './host.js';
import { Limit } from './limit.js';
import { Rows } from './rows.js';
import { countText, messageOf } from './text.js';
import { inTurn } from './turns.js';
import { VideoChanges } from './video-changes.js';

const problem = byId('problem', HTMLElement);
const downloadsTitle = byId('downloads-title', HTMLElement);
const cancelAll = byId('cancel-all', HTMLButtonElement);
const clearEnded = byId('clear-ended', HTMLButtonElement);
const showOlder = byId('show-older', HTMLButtonElement);
const confirmation = byId('confirm-cancel-all', HTMLDialogElement);

const limit = new Limit(showProblem);
const history = new History(show);
const changes = new VideoChanges(
  () => albums.refresh().then(show),
  (assetId) => albums.focus(assetId),
  attempt,
);
const albums: Albums = new Albums(
  (titles) => form.offerAlbums(titles),
  (action, asset, album) => {
    if (action === 'edit') changes.edit(asset, album);
    else void attempt(() => (action === 'open' ? openFolder(asset.id) : changes.remove(asset)));
  },
);
const rows = new Rows(
  (action, id) => void attempt(() => act(action, id)),
  (assetId) => albums.albumOf(assetId),
);
const downloads: Downloads = new Downloads(show, (download) => void settle(download));
const form = new SaveForm(async (options, isNamed) => {
  await downloads.start(options, isNamed);
  announce(`${options.filename}: started`);
});
let transfers = new Map<number, Transfer>();
let cards: Card[] = [];

/** Does something that the engine may refuse, and then shows why; it stays to be read until the next attempt. */
async function attempt(action: () => Promise<unknown>): Promise<void> {
  problem.hidden = true;
  await action().catch(showProblem);
}

function showProblem(error: unknown): void {
  setText(problem, messageOf(error));
  problem.hidden = false;
}

function show(): void {
  cards = cardsOf(downloads.all(), history.all(), transfers);
  const active = cards.filter(isActive);
  rows.show(cards);
  byId('downloads-empty', HTMLElement).hidden = cards.length > 0;
  hide(cancelAll, active.length === 0, downloadsTitle);
  hide(clearEnded, active.length === cards.length, downloadsTitle);
  hide(showOlder, !history.mayHaveMore(), downloadsTitle);
  setText(byId('downloads-count', HTMLElement), active.length > 0 ? String(active.length) : '');
  document.title = active.length > 0 ? `(${active.length}) Tarn` : 'Tarn';
}

async function act(action: CardAction, id: number): Promise<void> {
  const card = cards.find((candidate) => candidate.id === id);
  if (!card) return;
  switch (action) {
    case 'watch':
      return card.assetId === undefined ? undefined : albums.play(card.assetId);
    case 'cancel':
      await downloads.cancel(id);
      announce(`${card.name}: cancelled`);
      return history.refresh();
    case 'dismiss':
      return dismiss(card);
    case 'pause':
    case 'resume':
      await tell(card, action);
      return refreshTransfers();
    case 'again':
      return card.entry ? tell(card, 'retry') : startAgain(card);
    case 'asItCame':
      return tell(card, 'retryAsItCame');
  }
}

async function tell({ id, name }: Card, action: DownloadAction): Promise<void> {
  await changeDownload(id, action);
  if (action === 'retry' || action === 'retryAsItCame') {
    downloads.replaced(id);
    announce(`${name}: started again`);
  }
  await Promise.all([downloads.refresh(), history.refresh()]);
}

/** Where no host remembers it, with what this page remembers. */
async function startAgain({ id, download }: Card): Promise<void> {
  if (!download?.options) return;
  await downloads.start(download.options, true);
  await downloads.dismiss(id);
}

async function dismiss({ id, entry }: Card): Promise<void> {
  await downloads.dismiss(id);
  if (entry) await history.clear(id);
}

/** A download has ended: the albums have changed, or tell how it ended when no event did. */
async function settle(download: Download): Promise<void> {
  const { id, filename, options, phase, assetId } = download;
  await Promise.all([albums.refresh(), history.refresh()]);
  const entry = history.entry(id);
  const asset = phase === 'failed' || assetId || entry ? undefined : albums.find(filename, id, options?.album);
  if (asset) downloads.foundSaved(download, asset.id);
  show();
  const card = cards.find((candidate) => candidate.id === id);
  const outcome = { saved: 'saved', failed: 'not saved' }[(card?.phase ?? download.phase) as string] ?? 'ended';
  announce([`${filename ?? 'Download'}: ${outcome}`, entry?.reason ?? ''].filter(Boolean).join('. '));
}

cancelAll.addEventListener('click', () => {
  const count = cards.filter(isActive).length;
  setText(byId('confirm-count', HTMLElement), countText(count, 'download', 'downloads'));
  confirmation.returnValue = '';
  confirmation.showModal();
});
confirmation.addEventListener('close', () => {
  if (confirmation.returnValue !== 'cancel-all') return;
  void attempt(async () => {
    await downloads.cancelAll();
    announce('All downloads cancelled');
    await history.refresh();
  });
});
clearEnded.addEventListener('click', () => {
  const ended = downloads.all().filter((download) => !isActive(download));
  void attempt(async () => {
    await Promise.all(ended.map(({ id }) => downloads.dismiss(id)));
    await history.clear(true);
  });
});
showOlder.addEventListener('click', () => void history.showMore());

/** Makes up for what this page may have missed. */
function refresh(): void {
  downloads.refresh().catch(showProblem);
  void history.refresh();
}

function refreshAll(): void {
  refresh();
  limit.refresh().catch(showProblem);
  void albums.refresh().then(show);
}

const refreshTransfers = inTurn(async () => {
  transfers = await readTransfers().catch(() => new Map<number, Transfer>());
  show();
});

void downloads.listen();
new Drop(
  () => form.album(),
  async () => refresh(),
);
followConnection((epochChanged) => {
  problem.hidden = true;
  if (epochChanged) downloads.expectSilence();
  refreshAll();
});
onHostChange((what) => {
  if (what === 'library') void albums.refresh().then(show);
  else refresh();
});
setInterval(() => {
  if (downloads.isAnySilent()) downloads.refresh().catch(showProblem); // the history is read once it has ended
  if (offers('getTransfers') && cards.some(({ phase }) => phase === 'loading')) void refreshTransfers();
}, 1000);
document.addEventListener('visibilitychange', () => {
  if (document.visibilityState === 'visible') refreshAll();
});
