// What the tests stand on: the real binary with a home of its own, a web server that throttles, a clip made by ffmpeg,
// and Chromium.

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { existsSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { createServer } from 'node:http';
import { tmpdir } from 'node:os';
import { join, resolve } from 'node:path';
import { setTimeout as pause } from 'node:timers/promises';
import { fileURLToPath } from 'node:url';
import { chromium } from 'playwright-core';

const root = fileURLToPath(new URL('../../', import.meta.url));
export const binary = process.env.TARN_BINARY ?? join(root, 'build/release/tarn');

export { pause };

/** Waits until `look` gives something true, and returns that. */
export async function until(what, look, seconds = 15) {
  const end = Date.now() + seconds * 1000;
  for (;;) {
    const found = await look();
    if (found) return found;
    if (Date.now() > end) assert.fail(`not within ${seconds} s: ${what}`);
    await pause(50);
  }
}

export function temporaryFolder() {
  return mkdtempSync(join(tmpdir(), 'tarn-web-'));
}

/** A clip of 320 x 180 and 3 seconds, H.264 and AAC, with the tag "avc3" that some players refuse. */
export function makeClip(folder) {
  const file = join(folder, 'clip.mp4');
  const video = 'testsrc2=size=320x180:rate=25:duration=3,noise=alls=30:allf=t';
  const coding = '-c:v libx264 -preset veryfast -crf 20 -pix_fmt yuv420p -tag:v avc3 -c:a aac -shortest'.split(' ');
  const sources = ['-f', 'lavfi', '-i', video, '-f', 'lavfi', '-i', 'sine=frequency=440:duration=3'];
  execFileSync('ffmpeg', ['-v', 'error', '-y', ...sources, ...coding, '-movflags', '+faststart', file]);
  return file;
}

export function videoTag(file) {
  const wanted = ['-select_streams', 'v', '-show_entries', 'stream=codec_tag_string', '-of', 'default=nk=1:nw=1'];
  return execFileSync('ffprobe', ['-v', 'error', ...wanted, file], { encoding: 'utf8' }).trim();
}

/** The clip with a hole in its sound, which has to be encoded anew: the repaired file is larger. */
export function makeClipWithHole(folder, clip) {
  const file = join(folder, 'hole.mp4');
  const sound = ['-c:a', 'ac3', '-b:a', '64k', '-af', 'aselect=not(between(t\\,1\\,2))'];
  execFileSync('ffmpeg', ['-v', 'error', '-y', '-i', clip, '-c:v', 'copy', '-tag:v', 'avc3', ...sound, file]);
  return file;
}

/**
 * Serves one file under every path but /login, a web page, with ranges; `?rate=` in the address gives the bytes a
 * second, `?name=` the name that it tells.
 */
export class MediaServer {
  isMissing = false; // it has no such file just now
  other = undefined; // bytes that it serves in place of its file
  requests = []; // {range, cookie, sent, closed}

  async start(file) {
    const bytes = readFileSync(file);
    this.size = bytes.length;
    this.server = createServer((asked, answer) => void this.#answer(asked, answer, this.other ?? bytes));
    await new Promise((listening) => this.server.listen(0, '127.0.0.1', listening));
    return this;
  }

  address(name, seconds = 0) {
    const rate = seconds > 0 ? `?rate=${Math.ceil(this.size / seconds)}` : '';
    return `http://127.0.0.1:${this.server.address().port}/${name}${rate}`;
  }

  async stop() {
    this.server.closeAllConnections();
    await new Promise((closed) => this.server.close(closed));
  }

  async #answer(asked, answer, bytes) {
    const { range, cookie } = asked.headers;
    const query = new URL(asked.url, 'http://x').searchParams;
    const seen = { range, cookie, sent: 0, closed: false };
    this.requests.push(seen);
    answer.on('close', () => (seen.closed = true));
    if (this.isMissing) return answer.writeHead(404).end('nothing here');
    if (asked.url.startsWith('/login')) {
      return answer.writeHead(200, { 'Content-Type': 'text/html' }).end('<!doctype html><title>Sign in</title><p>Who?');
    }
    const from = Number(/^bytes=(\d+)-/.exec(range ?? '')?.[1] ?? 0);
    const part = { 'Content-Range': `bytes ${from}-${bytes.length - 1}/${bytes.length}` };
    answer.writeHead(from > 0 ? 206 : 200, {
      'Content-Type': 'video/mp4',
      'Content-Length': bytes.length - from,
      'Accept-Ranges': 'bytes',
      ETag: '"one"',
      ...(from > 0 ? part : {}),
      ...(query.has('name') ? { 'Content-Disposition': `attachment; filename="${query.get('name')}"` } : {}),
    });
    const rate = Number(query.get('rate') ?? Infinity);
    const step = Math.min(bytes.length, Math.ceil(rate / 20));
    for (let at = from; at < bytes.length && !seen.closed; at += step) {
      answer.write(bytes.subarray(at, at + step));
      seen.sent += step;
      if (rate !== Infinity) await pause(50);
    }
    answer.end();
  }
}

/** `tarn serve` with a home of its own, on a desktop whose programs are those of `programs`. */
export class Tarn {
  home = temporaryFolder();
  programs = temporaryFolder();
  port = 0;
  largestFile = 'unlimited'; // in KiB, as its file system has it

  /** @param options for `tarn serve`, beside home and port */
  constructor(options) {
    this.options = options;
  }

  async start() {
    const args = ['--home', this.home, 'serve', '--port', String(this.port), ...this.options];
    const limited = `trap '' XFSZ; ulimit -f ${this.largestFile}; exec "$@"`;
    this.process = spawn('/bin/bash', ['-c', limited, 'bash', resolve(binary), ...args], {
      stdio: ['ignore', 'pipe', 'pipe'],
      env: { ...process.env, PATH: this.programs, DISPLAY: ':0' },
    });
    let errors = '';
    this.process.stderr.on('data', (text) => (errors += text));
    this.entry = await new Promise((printed, failed) => {
      this.process.stdout.once('data', (text) => printed(String(text).trim()));
      this.process.once('error', failed);
      this.process.once('exit', () => failed(new Error(`tarn serve did not start: ${errors}`)));
    });
    this.port = Number(new URL(this.entry).port);
    return this;
  }

  async end(signal) {
    const exited = new Promise((gone) => this.process.once('exit', gone));
    this.process.kill(signal);
    await exited;
  }

  async stop() {
    await this.end('SIGINT');
    for (const folder of [this.home, this.programs]) rmSync(folder, { recursive: true, force: true });
  }

  /** Ends in order, and starts again at the same port. */
  async restart() {
    await this.end('SIGTERM');
    await this.start();
  }

  log() {
    const file = join(this.home, 'log/tarn.log');
    return existsSync(file) ? readFileSync(file, 'utf8') : '';
  }

  /** The files in the photo library, as `tarn library` prints them. */
  savedFiles() {
    const text = execFileSync(binary, ['--home', this.home, 'library', '--json'], { encoding: 'utf8' });
    return Array.from(text.matchAll(/.+/g), ([line]) => JSON.parse(line).path);
  }
}

export function launchBrowser(args = []) {
  return chromium.launch({
    executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
    args: process.getuid() === 0 ? ['--no-sandbox', ...args] : args,
  });
}

/** Keeps every event that the bridge gives the page in window.heard, as [milliseconds, name, data]. */
export async function keepEvents(page) {
  await page.evaluate(async () => {
    window.heard = [];
    for (const eventName of ['downloadProgress', 'downloadComplete']) {
      await window.Capacitor.nativeCallback('TarnBridge', 'addListener', { eventName }, (data) =>
        window.heard.push([performance.now(), eventName, data]),
      );
    }
  });
}

/** The bridge's answer, or the words with which it rejected; "no answer" when neither has come for long. */
export async function call(page, method, options) {
  const answer = page.evaluate(
    ([name, given]) => window.Capacitor.nativePromise('TarnBridge', name, given).catch((error) => error.message),
    [method, options],
  );
  return Promise.race([answer, pause(15000, 'no answer', { ref: false })]);
}
