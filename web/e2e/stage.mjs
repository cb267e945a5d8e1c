// What every test of the page begins and ends with: a host with a home of its own, a web server with a clip, a browser
// without a past; and what the tests say and look for in the page.

import assert from 'node:assert/strict';
import { rmSync } from 'node:fs';
import { after, afterEach, before, beforeEach } from 'node:test';

import { MediaServer, Tarn, launchBrowser, makeClip, temporaryFolder } from './support.mjs';

/** Lets a test kill the page's WebSockets and keep new ones from being opened for a while. */
function canBeCutOff() {
  const sockets = [];
  let offUntil = 0;
  window.WebSocket = class extends WebSocket {
    constructor(url) {
      super(performance.now() < offUntil ? `ws://${location.host}/` : url);
      sockets.push(this);
    }
  };
  window.cutOff = (milliseconds) => {
    offUntil = performance.now() + milliseconds;
    for (const socket of sockets) socket.close();
  };
}

/**
 * Filled anew before each test: media, browser, tarn, context; and faults of the pages, which are errors of their
 * scripts and violations of their policy.
 */
export const stage = {};

/** A browser that knows nothing of the one before. */
export async function changeBrowser() {
  await stage.context?.close();
  stage.context = await stage.browser.newContext();
  stage.context.on('page', (page) => {
    page.on('pageerror', (error) => stage.faults.push(error.message));
    page.on('console', (line) => line.text().includes('Content Security Policy') && stage.faults.push(line.text()));
  });
}

/** @param options for `tarn serve` */
export function setStage(...options) {
  const folder = temporaryFolder();

  before(async () => {
    stage.folder = folder;
    stage.clip = makeClip(folder);
    stage.media = await new MediaServer().start(stage.clip);
    stage.browser = await launchBrowser();
  });
  after(async () => {
    await stage.browser.close();
    await stage.media.stop();
    rmSync(folder, { recursive: true });
  });
  beforeEach(async () => {
    stage.media.requests.length = 0;
    stage.media.other = undefined;
    stage.tarn = await new Tarn(options).start();
    stage.faults = [];
    await changeBrowser();
  });
  afterEach(async () => {
    await stage.context.close();
    await stage.tarn.stop();
    assert.deepEqual(stage.faults, []);
  });
}

export async function open(address = stage.tarn.entry) {
  const page = await stage.context.newPage();
  page.setDefaultTimeout(15000);
  await page.addInitScript(canBeCutOff);
  await page.goto(address);
  await page.waitForSelector('html[data-tarn-connection=live]');
  return page;
}

export async function save(page, url, { album = 'Trips', filename = 'clip.mp4' } = {}) {
  await page.fill('#url', url);
  await page.fill('#album', album);
  await page.fill('#filename', filename);
  await page.click('button[type=submit]:visible');
}

export const row = (page, filename) => page.locator('.download', { hasText: filename });
export const inPhase = (page, filename, phase) =>
  page.waitForSelector(`.download[data-phase=${phase}]:has-text("${filename}")`);
export const act = (page, filename, action) => row(page, filename).locator(`button[data-action=${action}]`).click();
