import type { PluginListenerHandle } from '@capacitor/core';

/**
 * Fetches videos by URL in the background, repairs their MP4 structure and keeps them in albums of the photo library.
 *
 * A rejected promise is an error whose message is one of the texts named with the method, and whose `code` is the
 * `RejectionCode` of that text; or one with the host's own words for a command that it cannot carry, without a code.
 */
export interface TarnBridgePlugin {
  /**
   * Starts the download of one video. The promise tells that the download exists; its outcome comes with
   * `downloadComplete`.
   *
   * Rejects with "Must provide the data path", "Must provide the album" or "Must provide filename" for an option that
   * is absent or of another type, in this order; with "Access to photos not allowed by user"; and with "Invalid
   * download URL." for a URL that is not an absolute http or https one, and for half a second after
   * `cancelAllDownloads`.
   */
  saveVideo(options: SaveVideoOptions): Promise<DownloadSummary>;

  /**
   * All downloads that the engine holds, those that ended and have not been told of included; an empty object when
   * there are none. This is how a page that comes back learns what happened meanwhile.
   */
  getActiveDownloads(): Promise<Downloads>;

  /**
   * Cancels one download and forgets it. There is no event for it: this answer is the only one. An id that matches no
   * download resolves too.
   *
   * Rejects with "No such download" when `id` is absent or not a whole number.
   */
  cancel(options: CancelOptions): Promise<CancelResult>;

  /**
   * Cancels and forgets all downloads, without events for them. For half a second new ones are refused, unless
   * `clearAllStates` lifts that.
   */
  cancelAllDownloads(): Promise<void>;

  /** Forgets all downloads, and takes new ones again at once after a `cancelAllDownloads`. */
  clearAllStates(): Promise<void>;

  /** Has nothing behind it in the engine: rejects with "not implemented". */
  cleanupFiles(): Promise<void>;

  /**
   * Sets how many downloads may run at once. The limit is kept for later runs; lowering it stops nothing that runs.
   *
   * Rejects with "limit is required" when `limit` is absent or not a whole number.
   */
  setDownloadLimit(options: SetDownloadLimitOptions): Promise<SetDownloadLimitResult>;

  /** How many downloads may run at once, and how many wait. */
  getDownloadLimit(): Promise<DownloadLimit>;

  /**
   * Hears once a second of all downloads that wait, run or are processed, and of one download whenever its processing
   * goes on. The second kind comes under the same name with one entry that has no `reason`, `filename` or byte counts.
   */
  addListener(
    eventName: 'downloadProgress',
    listener: (progress: DownloadProgress) => void,
  ): Promise<PluginListenerHandle>;

  /**
   * Hears of the end of each download. A download that a new process took up after a kill ends without this event;
   * `getActiveDownloads` tells of it.
   */
  addListener(
    eventName: 'downloadComplete',
    listener: (completion: DownloadCompletion) => void,
  ): Promise<PluginListenerHandle>;

  /** Takes away all listeners of this page. */
  removeAllListeners(): Promise<void>;
}

/** Where a download stands. */
export type DownloadStatus =
  /** Stored by a version that knew another status. */
  | 'STATUS_UNKNOWN'
  /** Waits for one of the places that `setDownloadLimit` sets. */
  | 'STATUS_PENDING'
  /** Bytes are coming in. */
  | 'STATUS_RUNNING'
  /** The file is being repaired and saved, or waits for it. */
  | 'STATUS_PROCESSING'
  /** Part of the vocabulary; the engine does not enter it. */
  | 'STATUS_PAUSED'
  /** The video is in its album. */
  | 'STATUS_SUCCESSFUL'
  /** The video was not saved. */
  | 'STATUS_FAILED'
  /** The download has been forgotten. */
  | 'STATUS_CANCELLED';

/** Why a download stands where it stands. The engine gives the first two; the others are part of the vocabulary. */
export type DownloadReason =
  /** There is nothing to say, or the download was cancelled. */
  | 'REASON_NONE'
  /** It failed; what happened stands in the host's log. */
  | 'ERROR_UNKNOWN'
  /** Waits for the network. */
  | 'PAUSED_WAITING_FOR_NETWORK'
  /** The server gave no usable answer. */
  | 'ERROR_HTTP_DATA_ERROR'
  /** The disk is full. */
  | 'ERROR_INSUFFICIENT_SPACE'
  /** Waits before it tries again. */
  | 'PAUSED_WAITING_TO_RETRY'
  /** Waits for Wi-Fi. */
  | 'PAUSED_QUEUED_FOR_WIFI'
  /** A file could not be read or written. */
  | 'ERROR_FILE_ERROR'
  /** The transfer cannot be taken up again. */
  | 'ERROR_CANNOT_RESUME'
  /** There is such a file already. */
  | 'ERROR_FILE_ALREADY_EXISTS';

/** Why a command was refused: the `code` of the error, for each text that the engine rejects with. */
export type RejectionCode =
  /** "Must provide the data path": `url` is absent. */
  | 'MISSING_URL'
  /** "Must provide the album": `album` is absent. */
  | 'MISSING_ALBUM'
  /** "Must provide filename": `filename` is absent. */
  | 'MISSING_FILENAME'
  /** "Access to photos not allowed by user": people allow it in the settings of the system. */
  | 'PHOTOS_NOT_ALLOWED'
  /** "Invalid download URL.": no absolute http or https address, or all downloads were cancelled just now. */
  | 'INVALID_URL'
  /** "No such download": `id` is absent or not a whole number. */
  | 'MISSING_ID'
  /** "limit is required": `limit` is absent or not a whole number. */
  | 'MISSING_LIMIT'
  /** The engine has no such command, or there is none behind this page. */
  | 'UNIMPLEMENTED';

/** What `saveVideo` needs to know. */
export interface SaveVideoOptions {
  /** Absolute http or https address of the video. */
  url: string;
  /** Title of the album; it is made when there is none. */
  album: string;
  /** Name of the file in the photo library. */
  filename: string;
  /** Keeps the whole file as it came: picture, sound and timing. False when absent. */
  skipVideoFix?: boolean;
  /** Leaves sound and timing as they came. False when absent. */
  skipAudioFix?: boolean;
}

/** What is known of a download when it has been started. */
export interface DownloadSummary {
  /** Names the download in all later calls and events; the time of its start in Unix seconds. */
  id: number;
  /** "STATUS_PENDING" or "STATUS_RUNNING". */
  status: DownloadStatus;
  /** Why it stands there. */
  reason: DownloadReason;
  /** Left out when the download has none. */
  filename?: string;
}

/** One entry for each download, under its id as decimal text. */
export type Downloads = Record<string, DownloadEntry>;

/** One download with its byte counts. */
export interface DownloadEntry {
  /** Names the download. */
  id: number;
  /** Where it stands. */
  status: DownloadStatus;
  /** Why it stands there. */
  reason: DownloadReason;
  /** Left out when the download has none. */
  filename?: string;
  /** Bytes received so far. */
  bytesDownloaded: number;
  /** Bytes expected; 0 or less when the server has not told. */
  totalBytes: number;
}

/** The data of `downloadProgress`: one entry for each download that it tells of, under its id as decimal text. */
export type DownloadProgress = Record<string, ProgressEntry | StageUpdate>;

/** The entry that comes once a second. */
export interface ProgressEntry extends DownloadEntry {
  /** Whole percent, 0 to 100; only while the status is "STATUS_PROCESSING". */
  processingProgress?: number;
  /** What is being done, in words for people, or empty; only while the status is "STATUS_PROCESSING". */
  processingStage?: string;
}

/** The entry that comes when the processing of a download goes on. */
export interface StageUpdate {
  /** Names the download. */
  id: number;
  /** Always this one. */
  status: 'STATUS_PROCESSING';
  /** Whole percent, 0 to 100. */
  processingProgress: number;
  /** What is being done, in words for people, or empty. */
  processingStage: string;
}

/** The data of `downloadComplete`. */
export interface DownloadCompletion {
  /** Names the download. */
  id: number;
  /** "STATUS_SUCCESSFUL", or "STATUS_FAILED" when no video was saved. */
  status: DownloadStatus;
  /** "ERROR_UNKNOWN" for a failure; the engine's own words do not reach the page. */
  reason: DownloadReason;
  /** Left out when the download has none, and for some failures. */
  filename?: string;
  /** The saved video in the photo library; left out when none was saved. */
  assetId?: string;
}

/** What `cancel` needs to know. */
export interface CancelOptions {
  /** The download to cancel. */
  id: number;
}

/** The answer of `cancel`. */
export interface CancelResult {
  /** The id that was given. */
  id: number;
}

/** What `setDownloadLimit` needs to know. */
export interface SetDownloadLimitOptions {
  /** Downloads at once; kept within 1 to 10. */
  limit: number;
}

/** The answer of `setDownloadLimit`. */
export interface SetDownloadLimitResult {
  /** The limit that now holds. */
  limit: number;
}

/** The answer of `getDownloadLimit`. */
export interface DownloadLimit {
  /** Downloads at once; 3 when none has been set. */
  limit: number;
  /** Downloads that wait for a place. */
  queued: number;
}
