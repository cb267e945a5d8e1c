import { registerPlugin } from '@capacitor/core';

import type { TarnBridgePlugin } from './definitions.js';
import { withCodes } from './rejection.js';

/** The engine behind this page. */
export const TarnBridge = withCodes(
  registerPlugin<TarnBridgePlugin>('TarnBridge', {
    web: () => import('./web.js').then((module) => new module.TarnBridgeWeb()),
  }),
);

export * from './definitions.js';
export { rejectionCode } from './rejection.js';
