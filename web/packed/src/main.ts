import { rejectionCode, TarnBridge } from 'tarn-bridge';
import type { DownloadCompletion, RejectionCode } from 'tarn-bridge';

const hints: Partial<Record<RejectionCode, string>> = {
  INVALID_URL: 'A whole address is needed, that begins with https:// or http://.',
  PHOTOS_NOT_ALLOWED: 'Allow this page to use the photo library, then try again.',
};

const form = document.querySelector<HTMLFormElement>('#save')!;
const refusal = document.querySelector<HTMLElement>('#refusal')!;
const downloads = document.querySelector<HTMLElement>('#downloads')!;

/** The line of a download, made when it is first heard of. */
function lineOf(id: number): HTMLElement {
  const found = document.getElementById(`download-${id}`);
  if (found) return found;
  const line = Object.assign(document.createElement('li'), { id: `download-${id}` });
  downloads.append(line);
  return line;
}

function showEnd({ id, status, filename, assetId }: DownloadCompletion): void {
  lineOf(id).textContent = `${filename ?? id}: ${status === 'STATUS_SUCCESSFUL' ? 'saved' : 'not saved'}`;
  if (assetId !== undefined) lineOf(id).dataset.assetId = assetId;
}

await TarnBridge.addListener('downloadProgress', (progress) => {
  for (const entry of Object.values(progress)) lineOf(entry.id).textContent = entry.status;
});
await TarnBridge.addListener('downloadComplete', showEnd);

form.addEventListener('submit', async (event) => {
  event.preventDefault();
  refusal.textContent = '';
  const url = String(new FormData(form).get('url'));
  try {
    const { id, status } = await TarnBridge.saveVideo({ url, album: 'Trips', filename: 'clip.mp4' });
    if (lineOf(id).textContent === '') lineOf(id).textContent = status; // else an event has overtaken this answer
  } catch (error) {
    const code = rejectionCode(error);
    refusal.textContent = code ? `${code}: ${hints[code] ?? ''}` : String(error);
  }
});

Object.assign(window, { TarnBridge }); // to be tried from the console
document.documentElement.dataset.ready = '';
