import { Albums } from './albums.js';
import { followConnection } from './connection.js';
import { announce, byId, setText } from './dom.js';
import { Downloads, isActive } from './downloads.js';
import type { Download } from './downloads.js';
import { SaveForm } from './form.js';
import { Limit } from './limit.js';
import { Rows } from './rows.js';
import type { RowAction } from './rows.js';
import { countText, messageOf } from './text.js';

const problem = byId('problem', HTMLElement);
const cancelAll = byId('cancel-all', HTMLButtonElement);
const clearEnded = byId('clear-ended', HTMLButtonElement);
const confirmation = byId('confirm-cancel-all', HTMLDialogElement);

const albums = new Albums((titles) => form.offerAlbums(titles));
const limit = new Limit(showProblem);
const rows = new Rows((action, id) => void attempt(() => act(action, id)));
const downloads: Downloads = new Downloads(show, (download) => void settle(download));
const form = new SaveForm(async (options) => {
  await downloads.start(options);
  announce(`${options.filename}: started`);
});

/** Does something that the engine may refuse, and then shows why; it stays to be read until the next attempt. */
async function attempt(action: () => Promise<void>): Promise<void> {
  problem.hidden = true;
  await action().catch(showProblem);
}

function showProblem(error: unknown): void {
  setText(problem, messageOf(error));
  problem.hidden = false;
}

function show(): void {
  const all = downloads.all();
  const active = all.filter(isActive);
  rows.show(all);
  byId('downloads-empty', HTMLElement).hidden = all.length > 0;
  cancelAll.hidden = active.length === 0;
  clearEnded.hidden = active.length === all.length;
  setText(byId('downloads-count', HTMLElement), active.length > 0 ? String(active.length) : '');
  document.title = active.length > 0 ? `(${active.length}) Tarn` : 'Tarn';
}

async function act(action: RowAction, id: number): Promise<void> {
  const download = downloads.all().find((candidate) => candidate.id === id);
  if (!download) return;
  if (action === 'cancel') {
    await downloads.cancel(id);
    announce(`${download.filename ?? 'Download'}: cancelled`);
  } else if (action === 'dismiss') {
    await downloads.dismiss(id);
  } else if (action === 'again' && download.options) {
    await downloads.start(download.options);
    await downloads.dismiss(id);
  } else if (action === 'watch' && download.assetId) {
    albums.play(download.assetId);
  }
}

/** A download has ended: the albums have changed, or tell how it ended when no event did. */
async function settle(download: Download): Promise<void> {
  const { id, filename, options, phase, assetId } = download;
  await albums.refresh();
  const asset = phase === 'failed' || assetId ? undefined : albums.find(filename, id, options?.album);
  if (asset) downloads.foundSaved(download, asset.id);
  const outcome = { saved: 'saved', failed: 'not saved' }[download.phase as string] ?? 'ended';
  announce(`${filename ?? 'Download'}: ${outcome}`);
}

cancelAll.addEventListener('click', () => {
  const count = downloads.all().filter(isActive).length;
  setText(byId('confirm-count', HTMLElement), countText(count, 'download', 'downloads'));
  confirmation.returnValue = '';
  confirmation.showModal();
});
confirmation.addEventListener('close', () => {
  if (confirmation.returnValue !== 'cancel-all') return;
  void attempt(async () => {
    await downloads.cancelAll();
    announce('All downloads cancelled');
  });
});
clearEnded.addEventListener('click', () => {
  const ended = downloads.all().filter((download) => !isActive(download));
  void attempt(async () => {
    await Promise.all(ended.map(({ id }) => downloads.dismiss(id)));
  });
});

/** Makes up for what this page may have missed. */
function refresh(): void {
  downloads.refresh().catch(showProblem);
}

void downloads.listen();
followConnection((epochChanged) => {
  problem.hidden = true;
  if (epochChanged) downloads.expectSilence();
  refresh();
  limit.refresh().catch(showProblem);
  void albums.refresh();
});
setInterval(() => {
  if (downloads.isAnySilent()) refresh();
}, 1000);
document.addEventListener('visibilitychange', () => {
  if (document.visibilityState !== 'visible') return;
  refresh();
  limit.refresh().catch(showProblem);
});
