// The package in Node.js, behind which there is no engine:
//   node entries.mjs import | require | script     script: that of a page without a bundler

import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { createContext, runInContext } from 'node:vm';

const require = createRequire(import.meta.url);

function byScript() {
  const page = createContext({ console });
  for (const file of ['@capacitor/core/dist/capacitor.js', 'tarn-bridge/dist/plugin.js']) {
    runInContext(readFileSync(`node_modules/${file}`, 'utf8'), page);
  }
  return page.capacitorTarnBridge;
}

const ways = { import: () => import('tarn-bridge'), require: () => require('tarn-bridge'), script: byScript };
const { TarnBridge, rejectionCode } = await ways[process.argv[2]]();
const error = await TarnBridge.getDownloadLimit().catch((reason) => reason);
assert.match(String(error.message), /no engine behind it here/);
assert.equal(error.code, 'UNIMPLEMENTED');
assert.equal(rejectionCode(new Error('Access to photos not allowed by user')), 'PHOTOS_NOT_ALLOWED');
assert.equal(rejectionCode(undefined), undefined);
