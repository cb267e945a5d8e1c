import { registerPlugin } from '@capacitor/core';

import type { TarnBridgePlugin } from './definitions.js';

/**
 * The engine behind this page. Never `await` the object itself: it answers to every name, `then` included, and such a
 * wait does not end.
 */
export const TarnBridge = registerPlugin<TarnBridgePlugin>('TarnBridge', {
  web: () => import('./web.js').then((module) => new module.TarnBridgeWeb()),
});

export * from './definitions.js';
