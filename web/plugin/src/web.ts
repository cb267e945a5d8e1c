import { WebPlugin } from '@capacitor/core';

import type { TarnBridgePlugin } from './definitions.js';

/**
 * Stands in for the engine in a browser without a host: every call is rejected with words that say what is missing.
 * Listeners can be added and hear nothing.
 */
export class TarnBridgeWeb extends WebPlugin implements TarnBridgePlugin {
  saveVideo = this.missing('saveVideo');
  getActiveDownloads = this.missing('getActiveDownloads');
  cancel = this.missing('cancel');
  cancelAllDownloads = this.missing('cancelAllDownloads');
  clearAllStates = this.missing('clearAllStates');
  cleanupFiles = this.missing('cleanupFiles');
  setDownloadLimit = this.missing('setDownloadLimit');
  getDownloadLimit = this.missing('getDownloadLimit');

  private missing(method: keyof TarnBridgePlugin): () => Promise<never> {
    return async () => {
      throw this.unimplemented(
        `TarnBridge.${method}() has no engine behind it here. Open the page from "tarn serve" or inside the app.`,
      );
    };
  }
}
