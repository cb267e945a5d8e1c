// The page in a real browser, from the form to the saved video, and through all that can come between.

import assert from 'node:assert/strict';
import { rmSync } from 'node:fs';
import { test } from 'node:test';

import { readDefinitions } from '../plugin/api-docs.mjs';
import { act, inPhase, open, row, save, setStage, stage } from './stage.mjs';
import { call, keepEvents, pause, until, videoTag } from './support.mjs';

setStage();

const held = async (page) => Object.values(await call(page, 'getActiveDownloads'));

test('a save with the keyboard alone, from the form to the playing video', async () => {
  const page = await open();
  await page.setViewportSize({ width: 360, height: 740 });
  await page.focus('#url');
  await page.keyboard.press('Enter');
  assert.match(await page.textContent('#url-error'), /Paste the address/);
  assert.equal(await page.getAttribute('#url', 'aria-invalid'), 'true');
  await page.keyboard.type('ftp://127.0.0.1/clip%20one.mp4');
  assert.equal(await page.getAttribute('#filename', 'placeholder'), 'clip one.mp4');
  await page.keyboard.press('Tab');
  await page.keyboard.type('Trips');
  await page.keyboard.press('Enter');
  await until('the words of the engine', async () =>
    /^Invalid download URL\./.test(await page.textContent('#url-error')),
  );
  assert.equal(await page.evaluate(() => document.activeElement.id), 'url');

  await page.keyboard.press('Control+A');
  await page.keyboard.type(stage.media.address('clip%20one.mp4', 2));
  await page.keyboard.press('Enter');
  await until('a bar that moves', () => page.evaluate(() => document.querySelector('.download progress')?.value > 0));
  await inPhase(page, 'clip one.mp4', 'saved');
  await until('the end to be told', async () => /clip one\.mp4: saved/.test(await page.textContent('#announcer')));
  assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth), 'fits into 360 pixels');

  await page.focus('.download button[data-action=watch]');
  await page.keyboard.press('Enter');
  const video = page.locator('.album:has-text("Trips") video');
  await until('the end of the video', () => video.evaluate((element) => element.ended));
  assert.deepEqual(await video.evaluate((element) => [element.videoWidth, element.videoHeight]), [320, 180]);
  assert.ok(Math.abs((await video.evaluate((element) => element.duration)) - 3) < 0.2);

  assert.deepEqual(stage.tarn.savedFiles().map(videoTag), ['avc1'], 'it was repaired on its way');

  const elsewhere = stage.media.address('elsewhere');
  await page.goto(elsewhere).catch(() => {}); // it is a download
  assert.ok(stage.media.requests.length > 1);
  assert.ok(stage.media.requests.every(({ cookie }) => cookie === undefined), 'another port of this machine gets no cookie');
});

test('progress comes once a second, to all pages alike, and again to one that was cut off', async () => {
  const pages = [await open(), await open()];
  for (const page of pages) await keepEvents(page);
  await save(pages[0], stage.media.address('clip.mp4', 6));
  await inPhase(pages[1], 'clip.mp4', 'loading');
  await pages[1].evaluate(() => window.cutOff(2500));
  await pages[1].waitForSelector('html[data-tarn-connection=reconnecting]');
  for (const page of pages) await inPhase(page, 'clip.mp4', 'saved');

  const [one, two] = await Promise.all(pages.map((page) => page.evaluate(() => window.heard)));
  const withoutTimes = (events) => events.map(([, name, data]) => [name, data]);
  assert.deepEqual(withoutTimes(two), withoutTimes(one));
  const loading = one.filter(
    ([, name, data]) => name === 'downloadProgress' && Object.values(data)[0].status === 'STATUS_RUNNING',
  );
  assert.ok(loading.length >= 5, `${loading.length} looks at a transfer of 6 seconds`);
  for (const [index, [time]] of loading.slice(1).entries()) {
    assert.ok(Math.abs(time - loading[index][0] - 1000) < 500, `${time - loading[index][0]} ms between two`);
  }
  const [, name, { status, reason, filename, assetId }] = one.at(-1);
  assert.deepEqual(
    [name, status, reason, filename],
    ['downloadComplete', 'STATUS_SUCCESSFUL', 'REASON_NONE', 'clip.mp4'],
  );
  assert.ok(assetId);
});

test('the engine has the methods of definitions.ts, and answers and refuses in its own words', async () => {
  const page = await open();
  const [plugin] = await page.evaluate(() => window.Capacitor.PluginHeaders);
  const ofTheBridge = ['addListener', 'removeListener', 'checkPermissions', 'requestPermissions'];
  const engine = plugin.methods.filter(({ name }) => !ofTheBridge.includes(name));
  const declared = readDefinitions().methods.filter(({ name }) => name !== 'addListener');
  assert.deepEqual(engine.map(({ name }) => name).sort(), declared.map(({ name }) => name).sort());
  for (const method of engine) assert.equal(method.rtype, 'promise', method.name);

  const url = stage.media.address('clip.mp4');
  const cases = [
    ['saveVideo', { url, album: 7, filename: 'a.mp4' }, 'Must provide the album'],
    ['saveVideo', { url: '\ud800', album: 'Trips', filename: 'a.mp4' }, 'Invalid download URL.'],
    ['saveVideo', { url: 'x'.repeat(300000), album: 'Trips', filename: 'a.mp4' }, 'The command is too long'],
    ['cancel', { id: 1.5 }, 'No such download'],
    ['cancel', { id: 5 }, { id: 5 }],
    ['setDownloadLimit', { limit: 0 }, { limit: 1 }],
    ['getDownloadLimit', undefined, { limit: 1, queued: 0 }],
    ['getActiveDownloads', {}, {}],
    ['cleanupFiles', {}, 'not implemented'],
  ];
  for (const [method, options, expected] of cases)
    assert.deepEqual(await call(page, method, options), expected, method);
  const chosen = await call(page, 'saveVideo', { url, album: 'Trips', filename: 'a.mp4', id: 7 });
  assert.ok(chosen.id > 7, 'a page does not choose the number of a download');
});

test('a page that is closed in mid-download and opened again shows it, and its end', async () => {
  const first = await open();
  await save(first, stage.media.address('clip.mp4', 5));
  await inPhase(first, 'clip.mp4', 'loading');
  await first.close();
  await pause(1000);
  const second = await open();
  await inPhase(second, 'clip.mp4', 'loading');
  assert.match(await row(second, 'clip.mp4').textContent(), / of .*MB/);
  await inPhase(second, 'clip.mp4', 'saved');
  await second.waitForSelector('.album:has-text("Trips") .video:has-text("clip.mp4")');
  assert.equal(stage.media.requests.length, 1);
});

test('the application is in the background while no page can be seen', async () => {
  const count = (words) => stage.tarn.log().split(words).length - 1;
  const inBackground = () => count('App entered background - downloads continue in background');
  const inForeground = () => count('App entering foreground - checking download and processing status');
  // A tab that Playwright does not hold: it makes those that it holds believe that they are always seen.
  const chromium = await stage.browser.newBrowserCDPSession();
  const { targetId } = await chromium.send('Target.createTarget', { url: stage.tarn.entry });
  const { windowId } = await chromium.send('Browser.getWindowForTarget', { targetId });
  await pause(1500);
  const hidden = inBackground();
  await chromium.send('Browser.setWindowBounds', { windowId, bounds: { windowState: 'minimized' } });
  await until('background when minimized', () => inBackground() === hidden + 1);
  const shown = inForeground();
  await chromium.send('Browser.setWindowBounds', { windowId, bounds: { windowState: 'normal' } });
  await until('foreground', () => inForeground() === shown + 1);
  await chromium.send('Target.createTarget', { url: 'about:blank' });
  await until('background behind another tab', () => inBackground() === hidden + 2);
  await chromium.send('Target.activateTarget', { targetId });
  await until('foreground again', () => inForeground() === shown + 2);
  await chromium.send('Target.closeTarget', { targetId });
  await until('background when closed', () => inBackground() === hidden + 3);
});

test('cancel, cancel all and the limit', async () => {
  const page = await open();
  await page.waitForSelector('#limit-fewer[aria-disabled=false]');
  await page.locator('#limit-fewer').dblclick();
  await until('the limit', async () => (await call(page, 'getDownloadLimit')).limit === 1);
  assert.equal(await page.textContent('#limit'), '1');
  await save(page, stage.media.address('one.mp4', 20), { filename: 'one.mp4' });
  await inPhase(page, 'one.mp4', 'loading');
  await save(page, stage.media.address('two.mp4', 20), { filename: 'two.mp4' });
  await inPhase(page, 'two.mp4', 'waiting');
  await act(page, 'one.mp4', 'cancel');
  await inPhase(page, 'two.mp4', 'loading');
  assert.equal(await row(page, 'one.mp4').count(), 0);
  await until('the first transfer to end', () => stage.media.requests[0].closed);
  assert.ok(stage.media.requests[0].sent < stage.media.size);

  await page.click('#cancel-all');
  await page.click('dialog button[value=cancel-all]');
  await until('an empty list', async () => (await page.locator('.download').count()) === 0);
  assert.equal(
    await call(page, 'saveVideo', { url: stage.media.address('x'), album: 'Trips', filename: 'x.mp4' }),
    'Invalid download URL.',
  );
  await until('the engine to forget them', async () => (await held(page)).length === 0);
  await save(page, stage.media.address('three.mp4'), { filename: 'three.mp4' });
  await inPhase(page, 'three.mp4', 'saved');
});

test('the host is killed and started again: the page reconnects and the download goes on', async () => {
  const page = await open();
  const [{ name, path }] = await stage.context.cookies();
  await save(page, stage.media.address('clip.mp4', 6));
  await until('some bytes', () => stage.media.requests[0]?.sent > stage.media.size / 3);
  stage.tarn.process.kill('SIGSTOP');
  const given = call(page, 'saveVideo', { url: stage.media.address('two.mp4'), album: 'Trips', filename: 'two.mp4' });
  await pause(500); // so that it is on its way to a process that cannot answer
  await stage.tarn.end('SIGKILL');
  await page.waitForSelector('html[data-tarn-connection=reconnecting]');
  assert.ok(await page.isVisible('#connection-note'));
  const waiting = call(page, 'getDownloadLimit');
  await save(page, stage.media.address('three.mp4'), { filename: 'three.mp4' });
  await pause(1000);
  await stage.tarn.start();
  await page.waitForSelector('html[data-tarn-connection=live]');
  assert.deepEqual(await waiting, { limit: 3, queued: 0 }, 'a command that was given meanwhile');
  assert.match(await given, /started anew/, 'a command that may have been run is not run again');
  for (const name of ['clip.mp4', 'three.mp4']) await inPhase(page, name, 'saved');
  await page.click('.album:has-text("Trips") .poster >> nth=0');
  const video = page.locator('.album:has-text("Trips") video');
  await until('its picture', () => video.evaluate((element) => element.videoWidth > 0));
  const cookies = (await stage.context.cookies()).filter((cookie) => cookie.name === name);
  assert.equal(new URL(page.url()).pathname, cookies.find((cookie) => cookie.path !== path).path, 'the page has moved');
  await page.reload();
  await page.waitForSelector('html[data-tarn-connection=live]');
  const ranges = stage.media.requests.map(({ range }) => range);
  assert.equal(ranges.length, 3);
  assert.equal(ranges.filter((range) => /^bytes=[1-9]/.test(range)).length, 1, 'not from the start again');
});

test('a page whose token has become worthless says so', async () => {
  const page = await open();
  await stage.tarn.end('SIGKILL');
  rmSync(`${stage.tarn.home}/token`);
  await stage.tarn.start();
  await page.waitForSelector('html[data-tarn-connection=refused]');
  assert.match(await page.textContent('#connection-note'), /no longer valid/);
  assert.match(await call(page, 'getDownloadLimit'), /no longer valid/);
});
