import { TarnBridge } from 'tarn-bridge';
import type {
  DownloadCompletion,
  DownloadEntry,
  DownloadStatus,
  DownloadSummary,
  ProgressEntry,
  SaveVideoOptions,
  StageUpdate,
} from 'tarn-bridge';

import { isLive } from './connection.js';
import { offers, saveOnHost } from './host.js';
import { recall, remember } from './memory.js';
import { inTurn } from './turns.js';

/** `vanished`: the engine has forgotten it, and the page did not hear how it ended. */
export type Phase = 'waiting' | 'loading' | 'processing' | 'saved' | 'failed' | 'vanished';

export interface Download {
  readonly id: number;
  phase: Phase;
  filename?: string;
  /** What it was started with, when this browser did so. */
  options?: SaveVideoOptions;
  bytes: number;
  /** 0 or less when it is not known. */
  total: number;
  /** Bytes a second, smoothed; 0 when it is not known. */
  rate: number;
  /** Of the processing, 0 to 100. */
  percent: number;
  stage: string;
  assetId?: string;
  /** When the last event told of it, in milliseconds of performance.now(); 0 when none did. */
  heardAt: number;
  measuredAt: number;
}

const phases: Record<DownloadStatus, Phase> = {
  STATUS_UNKNOWN: 'waiting',
  STATUS_PENDING: 'waiting',
  STATUS_PAUSED: 'waiting',
  STATUS_RUNNING: 'loading',
  STATUS_PROCESSING: 'processing',
  STATUS_SUCCESSFUL: 'saved',
  STATUS_FAILED: 'failed',
  STATUS_CANCELLED: 'vanished',
};

/** The engine refuses new downloads for half a second after all have been cancelled. */
const coolDown = 600;
/** So many of those that have ended stay; a host's history has the others. */
const mostEnded = 50;
/** Events come once a second; a download that none told of for so long is asked for. */
const silence = 2500;

export function isActive({ phase }: { phase: Phase }): boolean {
  return phase === 'waiting' || phase === 'loading' || phase === 'processing';
}

/**
 * The downloads as this page knows them: from its own commands, from events, and from getActiveDownloads where events
 * were missed or do not come. An end is final; nothing that arrives later changes it.
 */
export class Downloads {
  private readonly known = new Map<number, Download>();
  private readonly forgotten = new Set<number>(); // an event or answer that tells of one of these comes too late
  private held = new Set<number>(); // what the engine had when it was last asked
  private readyForNew: Promise<void> = Promise.resolve();

  constructor(
    private readonly onChange: () => void,
    private readonly onEnd: (download: Download) => void,
  ) {}

  /** Those that are active in the order of their turn, then those that have ended, the newest first. */
  all(): Download[] {
    const sorted = [...this.known.values()].sort((a, b) => a.id - b.id);
    const ended = sorted.filter((download) => !isActive(download)).reverse();
    return [...sorted.filter(isActive), ...ended];
  }

  async listen(): Promise<void> {
    await TarnBridge.addListener('downloadProgress', (progress) => {
      for (const entry of Object.values(progress)) {
        if (!this.forgotten.has(entry.id)) this.hear(entry);
      }
      this.onChange();
    });
    await TarnBridge.addListener('downloadComplete', (completion) => {
      if (!this.forgotten.has(completion.id)) this.hearEnd(completion);
      this.onChange();
    });
  }

  /**
   * Through the host, if there is one: it takes an address as people write it, and unless the file `isNamed`, the name
   * that the server gives. The bridge keeps what is started while nobody answers.
   */
  async start(options: SaveVideoOptions, isNamed: boolean): Promise<void> {
    await this.readyForNew;
    const isOnHost = offers('saveVideo') && isLive();
    const summary = await (isOnHost ? saveOnHost(options, !isNamed) : TarnBridge.saveVideo(options));
    remember(summary.id, options);
    this.forgotten.delete(summary.id);
    const download = this.entry(summary);
    download.options = options;
    download.heardAt ||= performance.now();
    this.moveTo(download, phases[summary.status]);
    this.onChange();
  }

  async cancel(id: number): Promise<void> {
    await TarnBridge.cancel({ id });
    this.forget([id]);
  }

  async cancelAll(): Promise<void> {
    await TarnBridge.cancelAllDownloads();
    this.readyForNew = new Promise((resolve) => setTimeout(resolve, coolDown));
    this.forget(
      this.all()
        .filter(isActive)
        .map(({ id }) => id),
    );
  }

  /** Takes away one that has ended, from the engine too if that still has it. */
  async dismiss(id: number): Promise<void> {
    if (this.held.has(id)) await TarnBridge.cancel({ id });
    this.forget([id]);
  }

  /** The host has begun it anew, as another one. */
  replaced(id: number): void {
    this.forget([id]);
  }

  /** Asks the engine what it has: after a time without connection, and while an active download stays silent. */
  readonly refresh = inTurn(async () => {
    const before = this.all().filter(isActive);
    const answer = Object.values(await TarnBridge.getActiveDownloads());
    const entries = answer.filter(({ id }) => !this.forgotten.has(id));
    this.held = new Set(entries.map(({ id }) => id));
    for (const entry of entries) this.take(entry);
    for (const download of before) {
      if (!this.held.has(download.id)) this.moveTo(download, 'vanished');
    }
    this.onChange();
  });

  /** The video of an ended download has been found in its album. */
  foundSaved(download: Download, assetId: string): void {
    download.phase = 'saved';
    download.assetId = assetId;
    this.onChange();
  }

  isAnySilent(): boolean {
    const now = performance.now();
    return this.all().some((download) => isActive(download) && now - download.heardAt > silence);
  }

  /** The engine's process is a new one: what it took up sends no events. */
  expectSilence(): void {
    for (const download of this.known.values()) download.heardAt = 0;
  }

  private hear(entry: ProgressEntry | StageUpdate): void {
    const download = 'reason' in entry ? this.take(entry) : this.entry(entry);
    download.heardAt = performance.now();
    this.moveTo(download, phases[entry.status]);
    download.percent = entry.processingProgress ?? 0;
    download.stage = entry.processingStage ?? '';
  }

  private hearEnd(completion: DownloadCompletion): void {
    const download = this.entry(completion);
    if (completion.assetId) download.assetId = completion.assetId;
    this.held.delete(completion.id);
    this.moveTo(download, phases[completion.status]);
  }

  private take(entry: DownloadEntry): Download {
    const download = this.entry(entry);
    measure(download, entry.bytesDownloaded);
    download.total = entry.totalBytes;
    this.moveTo(download, phases[entry.status]);
    return download;
  }

  private entry({ id, filename }: Pick<DownloadSummary, 'id' | 'filename'>): Download {
    let download = this.known.get(id);
    if (!download) {
      const options = recall(id);
      download = {
        id,
        options,
        phase: 'waiting',
        bytes: 0,
        total: 0,
        rate: 0,
        percent: 0,
        stage: '',
        heardAt: 0,
        measuredAt: 0,
      };
      download.filename = options?.filename;
      this.known.set(id, download);
    }
    if (filename !== undefined) download.filename = filename;
    return download;
  }

  private moveTo(download: Download, phase: Phase): void {
    if (!isActive(download) || download.phase === phase) return;
    download.phase = phase;
    if (isActive(download)) return;
    this.onEnd(download);
    const ended = this.all().filter((other) => !isActive(other));
    if (ended.length > mostEnded) this.forget(ended.slice(mostEnded).map(({ id }) => id));
  }

  private forget(ids: number[]): void {
    for (const id of ids) {
      this.known.delete(id);
      this.forgotten.add(id);
      this.held.delete(id);
    }
    this.onChange();
  }
}

function measure(download: Download, bytes: number): void {
  const now = performance.now();
  const seconds = (now - download.measuredAt) / 1000;
  // Two looks in the same moment say nothing of the speed.
  if (download.measuredAt > 0 && seconds < 0.5) return;
  if (download.measuredAt > 0) {
    const rate = Math.max(0, bytes - download.bytes) / seconds;
    download.rate = download.rate > 0 ? 0.7 * download.rate + 0.3 * rate : rate;
  }
  download.bytes = bytes;
  download.measuredAt = now;
}
