import type { SaveVideoOptions } from 'tarn-bridge';

/** What the page itself remembers of the downloads that it started, since the engine tells of their names only. */
const key = 'tarn.started';
const most = 100;

type Started = Record<string, SaveVideoOptions>;

function read(): Started {
  try {
    return JSON.parse(localStorage.getItem(key) ?? '{}') as Started;
  } catch {
    return {};
  }
}

export function remember(id: number, options: SaveVideoOptions): void {
  const newest = Object.entries({ ...read(), [id]: options }).slice(-most);
  try {
    localStorage.setItem(key, JSON.stringify(Object.fromEntries(newest)));
  } catch {
    // A browser that keeps nothing: the page then knows of them until it is closed.
  }
}

export function recall(id: number): SaveVideoOptions | undefined {
  return read()[id];
}

/** The album of the last download that was started here. */
export function lastAlbum(): string | undefined {
  return Object.values(read()).at(-1)?.album;
}
