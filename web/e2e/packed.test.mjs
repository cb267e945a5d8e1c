// A page of one's own, built from the packed package (web/packed), over `tarn serve --web`. TARN_PAGE names its folder.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { setStage, stage } from './stage.mjs';
import { videoTag } from './support.mjs';

setStage('--web', process.env.TARN_PAGE);

async function open() {
  const page = await stage.context.newPage();
  page.setDefaultTimeout(15000);
  await page.goto(stage.tarn.entry);
  await page.waitForSelector('html[data-ready]');
  return page;
}

test('it shows why an address is refused, and the end of a save', async () => {
  const page = await open();
  await page.fill('input', 'ftp://127.0.0.1/clip.mp4');
  await page.click('button');
  await page.waitForSelector('#refusal:text("INVALID_URL: A whole address is needed")');
  await page.fill('input', stage.media.address('clip.mp4', 3));
  await page.click('button');
  await page.waitForSelector('#downloads li:text("STATUS_RUNNING")');
  await page.waitForSelector('#downloads li[data-asset-id]:text("clip.mp4: saved")');
  assert.equal(await page.textContent('#refusal'), '');
  assert.deepEqual(stage.tarn.savedFiles().map(videoTag), ['avc1'], 'it was repaired on its way');
});

test('each text of the engine has its code, and other words have none', async () => {
  const page = await open();
  const told = (method, options) =>
    page.evaluate(
      ([name, given]) => window.TarnBridge[name](given).catch(({ message, code }) => [message, code ?? null]),
      [method, options],
    );
  const url = stage.media.address('clip.mp4');
  const cases = [
    ['saveVideo', {}, 'Must provide the data path', 'MISSING_URL'],
    ['saveVideo', { url }, 'Must provide the album', 'MISSING_ALBUM'],
    ['saveVideo', { url, album: 'Trips' }, 'Must provide filename', 'MISSING_FILENAME'],
    ['saveVideo', { url: 'clip.mp4', album: 'Trips', filename: 'a.mp4' }, 'Invalid download URL.', 'INVALID_URL'],
    ['cancel', {}, 'No such download', 'MISSING_ID'],
    ['setDownloadLimit', {}, 'limit is required', 'MISSING_LIMIT'],
    ['cleanupFiles', {}, 'not implemented', 'UNIMPLEMENTED'],
    ['cancel', { id: 'x'.repeat(300000) }, 'The command is too long', null],
  ];
  for (const [method, options, ...expected] of cases) assert.deepEqual(await told(method, options), expected);
  assert.deepEqual(await told('setDownloadLimit', { limit: 50 }), { limit: 10 });
  assert.ok(await page.evaluate(async () => (await window.TarnBridge) === window.TarnBridge), 'it can be awaited');
});
