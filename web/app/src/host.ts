import type { DownloadSummary, SaveVideoOptions } from 'tarn-bridge';

/**
 * What the host of this page offers beside the bridge, by HTTP. An app on a phone has no such host: the page then shows
 * what the bridge tells, and no buttons for the rest.
 */

/** What another page or this one has changed. */
export type Change = 'library' | 'downloads' | 'history';

interface Facts {
  /** Those that stand behind the routes. */
  methods: string[];
  /** The path of the log. */
  log: string;
  onChange(callback: (what: Change) => void): void;
}

declare global {
  interface Window {
    tarnHost?: Facts;
  }
}

/** Start and end in seconds of the video's own clock. */
export type Span = [number, number];

export interface Timeline {
  video: Span[];
  audio: Span[];
  soundBehindAtStart?: number;
  soundBehindAtEnd?: number;
}

/** What was wrong with a video and what was done about it, a sentence each. */
export interface Summary {
  wrong: string[];
  done: string[];
  before?: Timeline;
  after?: Timeline;
}

/** A download as the host remembers it, over reloads and restarts. */
export interface HistoryEntry {
  id: number;
  state: 'pending' | 'saved' | 'failed' | 'cancelled';
  filename?: string;
  album?: string;
  url?: string;
  started: string;
  ended?: string;
  reason?: string;
  advice?: string;
  refused?: boolean;
  mayTryAgain?: boolean;
  maySaveAsItCame?: boolean;
  partly?: boolean;
  size?: number;
  assetId?: string;
  summary?: Summary;
}

/** Where a transfer stands, as far as the bridge does not tell. */
export interface Transfer {
  received: number;
  expected?: number;
  paused: boolean;
  retry?: { number: number; most: number; seconds: number; why: string };
}

export type DownloadAction = 'pause' | 'resume' | 'cancel' | 'retry' | 'retryAsItCame';

export interface AssetChange {
  action: 'remove' | 'restore' | 'rename' | 'move';
  filename?: string;
  album?: string;
}

/** Whether the host has a method of this name. */
export function offers(method: string): boolean {
  return window.tarnHost?.methods.includes(method) ?? false;
}

export function logPath(): string | undefined {
  return window.tarnHost?.log;
}

export function onHostChange(callback: (what: Change) => void): void {
  window.tarnHost?.onChange(callback);
}

/** The answer's JSON; throws the host's own words. */
async function ask<Answer>(path: string, init: RequestInit = {}): Promise<Answer> {
  const answer = await fetch(path, { cache: 'no-store', ...init }).catch(() => {
    throw new Error('The engine does not answer just now. Try again in a moment.');
  });
  const text = await answer.text();
  if (answer.ok) return JSON.parse(text) as Answer;
  throw new Error(wordsOf(text));
}

function wordsOf(text: string): string {
  try {
    return (JSON.parse(text) as { message: string }).message;
  } catch {
    return text.trim();
  }
}

function tell<Answer>(path: string, change: object): Promise<Answer> {
  const headers = { 'Content-Type': 'application/json' };
  return ask(path, { method: 'POST', headers, body: JSON.stringify(change) });
}

/** Newest first. */
export async function readHistory(limit: number): Promise<HistoryEntry[]> {
  return (await ask<{ entries: HistoryEntry[] }>(`history?limit=${limit}`)).entries;
}

export async function readTransfers(): Promise<Map<number, Transfer>> {
  const { transfers } = await ask<{ transfers: Record<string, Transfer> }>('downloads');
  return new Map(Object.entries(transfers).map(([id, transfer]) => [Number(id), transfer]));
}

export function changeDownload(id: number, action: DownloadAction): Promise<object> {
  return tell(`downloads/${id}`, { action });
}

/** The bridge's command, for an address as people write it; `filename` may give way to the name that the server gives. */
export function saveOnHost(options: SaveVideoOptions, takesServersName: boolean): Promise<DownloadSummary> {
  return tell('downloads', { ...options, takesServersName });
}

/** Opens the folder of a video on the host's desktop. */
export function openFolder(id: string): Promise<object> {
  return tell(`library/${encodeURIComponent(id)}`, { action: 'open' });
}

export function changeAsset(id: string, change: AssetChange): Promise<object> {
  return tell(`library/${encodeURIComponent(id)}`, change);
}

/** Forgets one download that has ended, or all. */
export function clearHistory(clear: true | number): Promise<object> {
  return tell('history', { clear });
}

/** Hands in a file of this machine, to be repaired and put into an album. `onPart` hears how much of it is there, 0 to 1. */
export function handIn(file: File, album: string, onPart: (part: number) => void): Promise<void> {
  return new Promise((resolve, reject) => {
    const request = new XMLHttpRequest(); // fetch tells nothing while it sends
    request.open('PUT', `local?${new URLSearchParams({ filename: file.name, album })}`);
    request.upload.onprogress = ({ loaded, total }) => onPart(total > 0 ? loaded / total : 0);
    request.onload = () => (request.status === 200 ? resolve() : reject(new Error(wordsOf(request.responseText))));
    request.onerror = () => reject(new Error('The file could not be handed over. Try again in a moment.'));
    request.send(file);
  });
}
