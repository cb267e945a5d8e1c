// What the page shows and does beside the bridge, in a real browser over the real `tarn serve`.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { existsSync, readFileSync, writeFileSync } from 'node:fs';
import { basename, join } from 'node:path';
import { test } from 'node:test';

import { act, changeBrowser, inPhase, open, row, save, setStage, stage } from './stage.mjs';
import { binary, call, makeClipWithHole, pause, until } from './support.mjs';

const axe = readFileSync(new URL('../node_modules/axe-core/axe.min.js', import.meta.url), 'utf8');

setStage();

/** Nothing that axe finds, and nothing that is wider than the window, narrow and wide, in light and in dark. */
async function looksRight(page) {
  for (const colorScheme of ['light', 'dark']) {
    await page.emulateMedia({ colorScheme, reducedMotion: 'reduce' }); // no colour is on its way
    for (const width of [390, 1280]) {
      await page.setViewportSize({ width, height: 900 });
      await page.evaluate(axe);
      const found = await page.evaluate(async () => (await window.axe.run()).violations);
      const words = found.map(({ id, nodes }) => `${id}: ${nodes.map(({ html }) => html).join('\n')}`);
      assert.deepEqual(words, [], `${colorScheme}, ${width} pixels`);
      assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth), `fits into ${width}`);
    }
  }
}

/** Brings the next answer from `address` two seconds late, so that later ones overtake it. @returns waits for it */
async function holdBack(page, address) {
  let arrive;
  const arrival = new Promise((resolve) => (arrive = resolve));
  const answerLate = async (route) => {
    const answer = await route.fetch();
    await pause(2000);
    await route.fulfill({ response: answer }).then(arrive);
  };
  await page.route(address, answerLate, { times: 1 });
  return () => arrival;
}

const video = (page, filename) => page.locator('.video', { hasText: filename });
const text = (page, selector) => page.locator(selector).textContent();

test('a failure says why and what helps, over reload and restart, until it is dismissed', async () => {
  const page = await open();
  await save(page, stage.media.address('login'), { filename: 'lecture.mp4' });
  await inPhase(page, 'lecture.mp4', 'failed');
  const isTold = async () => {
    const words = await row(page, 'lecture.mp4').textContent();
    assert.match(words, /lecture\.mp4 is a web page \("Sign in"\): the address needs a login\./, 'the reason');
    assert.match(words, /127\.0\.0\.1:\d+\/login/, 'the address');
    assert.match(words, /tarn\.log/, 'where the log is');
    assert.ok(!(await page.isVisible('#downloads-empty')));
  };
  await until('the reason', () => page.isVisible('.download-reason'));
  await isTold();
  await page.reload();
  await inPhase(page, 'lecture.mp4', 'failed');
  await isTold();
  await stage.tarn.restart();
  const later = await open();
  await inPhase(later, 'lecture.mp4', 'failed');
  await page.waitForSelector('html[data-tarn-connection=live]');
  await inPhase(page, 'lecture.mp4', 'failed');
  await isTold();
  await looksRight(page);

  await act(page, 'lecture.mp4', 'dismiss');
  for (const each of [page, later]) await each.waitForSelector('#downloads-empty');
  await page.reload();
  await page.waitForSelector('html[data-tarn-connection=live]');
  await page.waitForSelector('#downloads-empty');
});

test('a failed download is tried again after a restart, from a browser that did not start it', async () => {
  const first = await open();
  stage.media.isMissing = true;
  await save(first, stage.media.address('clip.mp4'));
  await inPhase(first, 'clip.mp4', 'failed');
  stage.media.isMissing = false;
  await stage.tarn.restart();
  await changeBrowser();
  const page = await open();
  const late = await holdBack(page, /history\?/);
  await act(page, 'clip.mp4', 'again');
  await inPhase(page, 'clip.mp4', 'saved');
  await late();
  await inPhase(page, 'clip.mp4', 'saved');
  assert.equal(await page.locator('.download').count(), 1);
  await act(page, 'clip.mp4', 'dismiss');
  await page.waitForSelector('#downloads-empty');
});

test('a saved video tells what was wrong and what was done, with picture and sound before and after', async () => {
  const page = await open();
  await save(page, stage.media.address('late.mp4'));
  await inPhase(page, 'clip.mp4', 'saved');
  await until('the state', async () => /Repaired and saved/.test(await row(page, 'clip.mp4').textContent()));
  await page.click('.download-report summary');
  assert.ok((await page.locator('.download-report li').count()) >= 2);
  assert.match(await text(page, '.download-report'), /What was wrong.*What was done.*Sound against picture: before, /s);
  const lanes = await page.locator('.plot svg').evaluateAll((all) => all.map((lane) => lane.querySelectorAll('rect').length));
  assert.equal(lanes.length, 4);
  assert.ok(lanes.every((bars) => bars > 0));
  await looksRight(page);

  await page.click('summary:has-text("Repair"):visible >> nth=0');
  await page.check('#skip-video');
  await save(page, stage.media.address('other.mp4'), { filename: 'other.mp4' });
  await inPhase(page, 'other.mp4', 'saved');
  await until('the state', async () => /Saved as it came/.test(await row(page, 'other.mp4').textContent()));
});

test('what is too large once repaired is saved as it came', async () => {
  const came = readFileSync(makeClipWithHole(stage.folder, stage.clip));
  stage.media.other = came;
  stage.tarn.largestFile = Math.ceil(came.length / 1024);
  await stage.tarn.restart();
  const page = await open();
  await save(page, stage.media.address('hole.mp4'), { filename: 'hole.mp4' });
  await inPhase(page, 'hole.mp4', 'failed');
  await until('the reason', async () => /no file as large as the repaired one/.test(await row(page, 'hole.mp4').textContent()));
  assert.deepEqual(stage.tarn.savedFiles(), []);
  await act(page, 'hole.mp4', 'asItCame');
  await inPhase(page, 'hole.mp4', 'saved');
  assert.equal(await page.locator('.download').count(), 1);
  const [saved] = stage.tarn.savedFiles();
  assert.ok(readFileSync(saved).equals(came), 'byte for byte');
});

test('a name that is left open is the one that the server tells', async () => {
  const page = await open();
  await save(page, stage.media.address('get video.php?name=Sea 1.mp4'), { filename: '' });
  await inPhase(page, 'Sea 1.mp4', 'saved');
  await save(page, stage.media.address('get.php?name=other.mp4'), { filename: 'mine.mp4' });
  await inPhase(page, 'mine.mp4', 'saved');
  assert.deepEqual(stage.tarn.savedFiles().map((path) => basename(path)), ['Sea 1.mp4', 'mine.mp4']);
});

test('the folder of a video opens on the desktop, with a program that nobody waits for', async () => {
  const page = await open();
  await save(page, stage.media.address('clip.mp4'));
  await page.waitForSelector('.video');
  const choose = async () => {
    await page.click('.menu-button');
    await page.click('[role=menuitem]:has-text("Open its folder")');
  };
  const folder = join(stage.tarn.home, 'Photos/Trips');
  await choose();
  await until('why not', async () => (await text(page, '#problem')).endsWith(`can open the folder. The video is in ${folder}`));

  const told = join(stage.tarn.programs, 'told');
  const script = `#!/bin/sh\n{ echo "$$ $1"; /bin/ls -l /proc/$$/fd; } >${told}.new; /bin/mv ${told}.new ${told}; exec /bin/sleep 60\n`;
  writeFileSync(join(stage.tarn.programs, 'xdg-open'), script, { mode: 0o755 });
  await choose();
  await until('the program', () => existsSync(told));
  const [, id, opened, descriptors] = /^(\d+) (.*)\n([^]*)$/.exec(readFileSync(told, 'utf8'));
  assert.equal(opened, folder);
  assert.doesNotMatch(descriptors, new RegExp(`socket:|pipe:|${stage.tarn.home}`));
  assert.equal(await page.evaluate(async () => (await fetch('history?limit=1')).status), 200);
  assert.ok(existsSync(`/proc/${id}`), 'it is still there');
  await until('the end of the notice', async () => !(await page.isVisible('#problem')));
  process.kill(Number(id));
});

test('a transfer is paused and goes on; one that nobody answers says when it tries again, and why', async () => {
  const page = await open();
  await save(page, stage.media.address('clip.mp4', 4));
  const focused = () => page.evaluate(() => document.activeElement.dataset.action ?? document.activeElement.id);
  await page.waitForSelector('button[data-action=pause]:visible');
  await page.press('button[data-action=pause]', 'Enter');
  await until('the pause', async () => /Paused/.test(await row(page, 'clip.mp4').textContent()));
  await until('the transfer to end', () => stage.media.requests[0].closed);
  assert.equal(await focused(), 'resume', 'where the way on is');
  await page.keyboard.press('Enter');
  await inPhase(page, 'clip.mp4', 'saved');
  await until('a button of the row to have the focus', async () => ['watch', 'dismiss'].includes(await focused()));
  assert.match(stage.media.requests[1].range, /^bytes=[1-9]/, 'not from the start again');

  await save(page, 'http://127.0.0.1:1/none.mp4', { filename: 'none.mp4' });
  await until('the line', async () =>
    /Retrying in \d+\ss \(\d of \d\): .*refused/i.test(await row(page, 'none.mp4').textContent()),
  );
  await act(page, 'none.mp4', 'cancel');
  await until('its row to go', async () => (await row(page, 'none.mp4').count()) === 0);
  await page.press('#clear-ended', 'Enter');
  await page.waitForSelector('#downloads-empty');
  assert.equal(await focused(), 'downloads-title');
});

test('videos are renamed, moved, removed and brought back with the keyboard, and another page sees it', async () => {
  const page = await open();
  const other = await open();
  await save(page, stage.media.address('clip.mp4'));
  const poster = video(page, 'clip.mp4').locator('.poster');
  await until('its picture', () => poster.locator('img').evaluateAll(([image]) => image?.naturalWidth > 0));

  await poster.focus();
  await page.keyboard.press('Tab');
  for (const key of ['Enter', 'ArrowDown', 'ArrowDown', 'Enter', 'Escape']) await page.keyboard.press(key);
  assert.ok(await page.evaluate(() => document.activeElement.matches('.menu-button')), 'back at the menu');
  for (const key of ['Enter', 'ArrowDown', 'ArrowDown', 'Enter']) await page.keyboard.press(key);
  await page.keyboard.type('renamed');
  await page.keyboard.press('Tab');
  await page.keyboard.type('Sea');
  await page.keyboard.press('Enter');
  for (const each of [page, other]) await each.waitForSelector('.album:has-text("Sea") .video:has-text("renamed.mp4")');
  assert.deepEqual(stage.tarn.savedFiles().map((path) => basename(path)), ['renamed.mp4']);
  assert.equal(await page.locator('.album:has-text("Trips")').count(), 0);
  const isAtMenu = () => page.evaluate(() => document.activeElement.matches('.menu-button[aria-label$=" renamed.mp4"]'));
  await until('the menu to have the focus again', isAtMenu);
  assert.match(await row(page, 'clip.mp4').textContent(), /In the album Sea/);

  const kept = page.waitForEvent('download');
  await page.click('.menu-button');
  await looksRight(page);
  await page.click('text=Download >> visible=true >> nth=-1');
  assert.equal((await kept).suggestedFilename(), 'renamed.mp4');

  await other.focus('.poster');
  await page.focus('.menu-button');
  for (const key of ['Enter', 'End', 'Enter']) await page.keyboard.press(key);
  await until('the way back', () => page.evaluate(() => document.activeElement.dataset.action === 'undo'));
  for (const each of [page, other]) await until('no video', async () => (await each.locator('.video').count()) === 0);
  assert.deepEqual(stage.tarn.savedFiles(), []);
  await looksRight(page);
  assert.equal(await other.evaluate(() => document.activeElement.id), 'albums-title', 'not at the top of the page');
  await page.keyboard.press('Enter');
  for (const each of [page, other]) await each.waitForSelector('.album:has-text("Sea") .video:has-text("renamed.mp4")');
  assert.ok(!(await page.isVisible('#undo')));
  await until('the video that is back to have the focus', isAtMenu);

  await other.click('.menu-button');
  await other.click('text=Rename or move');
  await page.click('.menu-button');
  await page.click('[role=menuitem]:has-text("Remove")');
  await other.waitForSelector('.video', { state: 'detached' });
  await other.fill('#edit-filename', 'too late.mp4');
  await other.keyboard.press('Enter');
  await until('the words', async () => /removed/.test(await text(other, '#edit-error')));
  await page.click('[data-action=undo]');
  await other.waitForSelector('.video:has-text("renamed.mp4")');

  // From one video to what follows: its picture, its menu, nothing else.
  await page.focus('.poster');
  await page.keyboard.press('Tab');
  await page.keyboard.press('Tab');
  assert.ok(await page.evaluate(() => !document.querySelector('.video').contains(document.activeElement)));
});

test('a file of this machine is dragged in, repaired and kept; what is no video is refused', async () => {
  const page = await open();
  await page.fill('#album', 'Mine');
  const files = [
    ['notes.mp4', Buffer.from('no video at all').toString('base64')],
    ['mine.mp4', readFileSync(stage.clip).toString('base64')],
  ];
  const dragged = await page.evaluateHandle((all) => {
    const transfer = new DataTransfer();
    for (const [filename, bytes] of all) {
      transfer.items.add(new File([Uint8Array.from(atob(bytes), (c) => c.charCodeAt(0))], filename));
    }
    return transfer;
  }, files);
  for (const type of ['dragenter', 'dragover', 'drop']) await page.dispatchEvent('body', type, { dataTransfer: dragged });
  await page.waitForSelector('.album:has-text("Mine") .video:has-text("mine.mp4")');
  await until('its report', async () => /Repaired and saved/.test(await row(page, 'mine.mp4').textContent()));
  assert.match(await text(page, '#drop-words'), /notes\.mp4: .*(not|no) /, 'the refusal, still to be read');
});

test('a page that stays open stays small, however much comes and goes', async () => {
  const page = await open();
  const session = await stage.context.newCDPSession(page);
  const countNodes = async () => {
    await session.send('HeapProfiler.collectGarbage');
    return (await session.send('Memory.getDOMCounters')).nodes;
  };
  await call(page, 'setDownloadLimit', { limit: 10 });
  const comeAndGo = async (round) => {
    const starts = Array.from({ length: 60 }, (_, number) => {
      const url = stage.media.address(number % 10 === 0 ? 'clip.mp4' : 'login'); // which fails at once
      return call(page, 'saveVideo', { url, album: 'Trips', filename: `${round}-${number}.mp4` });
    });
    for (const { id } of await Promise.all(starts)) assert.ok(id > 0);
    await until('the videos', async () => (await page.locator('.video').count()) === 6, 60);
    await until('all ends', async () => (await page.locator('.download progress:visible').count()) === 0, 60);
    const names = stage.tarn.savedFiles().map((path) => `Trips/${basename(path)}`);
    for (const name of names) execFileSync(binary, ['--home', stage.tarn.home, 'library', 'remove', '--now', name]);
    await until('no video', async () => (await page.locator('.video').count()) === 0);
  };
  await comeAndGo('first');
  const before = await countNodes();
  await comeAndGo('second');
  // Pictures that were on their way to a card hold it for a moment longer.
  await until(`no more nodes than the ${before} before`, async () => (await countNodes()) < before + 60);
  await page.waitForSelector('.download:has-text("second-59.mp4")');
});
