// An hour of everything at once, over the real programs: `./check soak`. Two homes have a `tarn serve` each. In one it is
// never killed and drives a page in Chromium: its memory, descriptors and threads are looked at every ten seconds, and
// must be flat. In the other it is killed again and again. Commands save in both, from a server that cuts, fails and
// dawdles; single files and a folder are repaired beside them; commands are killed too. Every result is compared with
// that of an undisturbed repair. TARN_SOAK_MINUTES says how long (60), TARN_SOAK_SEED draws other faults.

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { createHash } from 'node:crypto';
import { appendFileSync, copyFileSync, existsSync, mkdirSync, readFileSync, readdirSync } from 'node:fs';
import { rmSync, truncateSync, writeFileSync } from 'node:fs';
import { createServer } from 'node:http';
import { join } from 'node:path';
import { fileURLToPath } from 'node:url';

import { Tarn, binary, call, keepEvents, launchBrowser, makeClip, makeClipWithHole } from './support.mjs';
import { pause, temporaryFolder, until } from './support.mjs';

const minutes = Number(process.env.TARN_SOAK_MINUTES ?? 60);
const seed = Number(process.env.TARN_SOAK_SEED ?? 1);
const album = 'Soak';
const figures = {};
const faults = [];
function count(what) {
  figures[what] = (figures[what] ?? 0) + 1;
}
const fault = (words) => {
  faults.push(words);
  console.error(`FAULT: ${words}`);
};

let drawn = seed;
/** A number from 0 to 1; the same ones for the same seed, though not at the same moments. */
function draw() {
  drawn = (Math.imul(drawn, 1664525) + 1013904223) >>> 0;
  return drawn / 2 ** 32;
}

/** Runs a program to its end, or kills it after some milliseconds. */
async function run(args, killAfter) {
  const child = spawn(binary, args, { stdio: ['ignore', 'pipe', 'pipe'] });
  let output = '';
  let errors = '';
  child.stdout.on('data', (text) => (output += text));
  child.stderr.on('data', (text) => (errors += text));
  const timer = killAfter === undefined ? undefined : setTimeout(() => child.kill('SIGKILL'), killAfter);
  const [code, signal] = await new Promise((ended, failed) => {
    child.once('close', (...how) => ended(how));
    child.once('error', failed);
  });
  clearTimeout(timer);
  return { code, isKilled: signal === 'SIGKILL', output, errors: errors.trim().slice(-300) };
}

const lines = (text) => Array.from(text.matchAll(/.+/g), ([line]) => JSON.parse(line));

// --- The recordings ---

/** What ffprobe lists of each packet: its track, its times and its bytes. */
function packets(file) {
  const wanted = ['-show_packets', '-show_data_hash', 'md5', '-show_entries'];
  const fields = 'packet=stream_index,pts,dts,duration,data_hash';
  const list = execFileSync('ffprobe', ['-v', 'error', ...wanted, fields, '-of', 'csv', file], { maxBuffer: 1 << 26 });
  return createHash('sha256').update(list).digest('hex');
}

/** Recordings by kind: their file, and that of an undisturbed repair. */
function makeRecordings(folder) {
  const plain = makeClip(folder);
  const made = (kind, ...options) => {
    const file = join(folder, `${kind}.mp4`);
    execFileSync('ffmpeg', ['-v', 'error', '-y', '-i', plain, ...options, file]);
    return file;
  };
  const hevc = '-c:v libx265 -preset ultrafast -x265-params log-level=none:repeat-headers=1 -tag:v hev1'.split(' ');
  const sources = {
    tag: plain,
    hole: makeClipWithHole(folder, plain),
    healthy: made('healthy', '-c', 'copy', '-tag:v', 'avc1', '-bsf:v', 'filter_units=remove_types=7-8', '-movflags', '+faststart'),
    fragments: made('fragments', '-c', 'copy', '-movflags', '+frag_keyframe+empty_moov'),
    hevc: made('hevc', ...hevc, '-c:a', 'copy'),
    cut: made('cut', '-c', 'copy', '-movflags', '+faststart'),
  };
  const bytes = readFileSync(sources.cut).length;
  truncateSync(sources.cut, Math.floor(bytes * 0.7));
  const recordings = {};
  for (const [kind, file] of Object.entries(sources)) {
    const result = join(folder, `${kind}-repaired.mp4`);
    try {
      execFileSync(binary, ['repair', file, '-o', result], { stdio: 'ignore' });
    } catch ({ status }) {
      assert.equal(status, 5, `the undisturbed repair of ${kind}`);
    }
    recordings[kind] = { file, bytes: readFileSync(file), result: readFileSync(result), packets: packets(result) };
  }
  return recordings;
}

/** The same bytes as an undisturbed repair; or, where an encoder was begun anew after a kill, the same packets. */
function isWhole(file, recording) {
  if (!existsSync(file)) return false;
  return readFileSync(file).equals(recording.result) || packets(file) === recording.packets;
}

/** Serves `/KIND-NUMBER.mp4`. Of three requests one goes wrong: it is refused, cut, or takes long. */
class FaultyServer {
  constructor(recordings) {
    this.recordings = recordings;
    this.server = createServer((asked, answer) => void this.#answer(asked, answer));
  }
  async start() {
    await new Promise((listening) => this.server.listen(0, '127.0.0.1', listening));
  }
  address(name) {
    return `http://127.0.0.1:${this.server.address().port}/${name}`;
  }
  stop() {
    this.server.closeAllConnections();
    this.server.close();
  }

  async #answer(asked, answer) {
    const { bytes } = this.recordings[/^\/([a-z]+)-/.exec(asked.url)[1]];
    const luck = draw();
    if (luck < 0.1) {
      count('requests refused with 500');
      return answer.writeHead(500).end();
    }
    const from = Number(/^bytes=(\d+)-/.exec(asked.headers.range ?? '')?.[1] ?? 0);
    const range = { 'Content-Range': `bytes ${from}-${bytes.length - 1}/${bytes.length}` };
    answer.writeHead(from > 0 ? 206 : 200, {
      'Content-Type': 'video/mp4',
      'Content-Length': bytes.length - from,
      'Accept-Ranges': 'bytes',
      ETag: '"one"',
      ...(from > 0 ? range : {}),
    });
    if (luck < 0.25) {
      count('transfers cut');
      answer.write(bytes.subarray(from, from + Math.floor((bytes.length - from) * draw())), () => asked.socket.destroy());
    } else if (luck < 0.33) {
      count('transfers that dawdle');
      const half = from + Math.floor((bytes.length - from) / 2);
      answer.write(bytes.subarray(from, half));
      await pause(3000);
      answer.end(bytes.subarray(half));
    } else {
      answer.end(bytes.subarray(from));
    }
  }
}

// --- What happens at the same time ---

/** All that the parts below share. */
class Soak {
  end = Date.now() + minutes * 60_000;
  number = 0;
  folder = temporaryFolder();
  recordings = makeRecordings(this.folder);
  server = new FaultyServer(this.recordings);
  homes = { steady: new Tarn([]), killed: new Tarn([]) };

  isOver() {
    return Date.now() > this.end;
  }
  next() {
    const kinds = Object.keys(this.recordings);
    const kind = kinds[this.number % kinds.length];
    const name = `${kind}-${++this.number}.mp4`;
    return { recording: this.recordings[kind], name, url: this.server.address(name) };
  }

  /** Looks at a saved video, and makes room. */
  async take(tarn, path, { recording, name }, by) {
    if (!isWhole(path, recording)) fault(`${by}: ${name} is not whole`);
    count(`videos saved by ${by}`);
    const removed = await run(['--home', tarn.home, 'library', 'remove', '--now', `${album}/${name}`]);
    // If the engine is killed once it has removed the video, the command asks the next one, which has no such video.
    const mayBeGone = tarn === this.homes.killed && !existsSync(path);
    if (removed.code !== 0 && !mayBeGone) fault(`${by}: ${name} cannot be removed: ${removed.errors}`);
  }

  /** Commands that save, one in five of which is killed. */
  async saveByCommands(where) {
    const tarn = this.homes[where];
    while (!this.isOver()) {
      const video = this.next();
      const args = ['--home', tarn.home, 'save', video.url, '--album', album, '--filename', video.name, '--json'];
      const ended = await run(args, draw() < 0.2 ? draw() * 500 : undefined);
      if (ended.isKilled) {
        count('commands killed');
      } else if (ended.code === 0 || ended.code === 5) {
        await this.take(tarn, lines(ended.output).find(({ path }) => path).path, video, `commands, ${where} home`);
      } else if (ended.code === 75) {
        count('saves that said: try again');
      } else {
        fault(`save of ${video.name}, ${where} home, ended with ${ended.code}: ${ended.errors}`);
      }
      await pause(200);
    }
  }

  /** The page of the home whose server is never killed: each end is told once. */
  async saveByPage(page) {
    const tarn = this.homes.steady;
    while (!this.isOver()) {
      const video = this.next();
      const answer = await call(page, 'saveVideo', { url: video.url, album, filename: video.name });
      if (!answer?.id) {
        fault(`the page is refused ${video.name}: ${JSON.stringify(answer)}`);
        continue;
      }
      const told = () =>
        page.evaluate((id) => {
          const ends = window.heard.filter(([, name, data]) => name === 'downloadComplete' && data.id === id);
          return ends.map(([, , { status }]) => status);
        }, answer.id);
      const [status] = await until(`the end of ${video.name}`, async () => (await told()).length > 0 && told(), 300);
      if (status === 'STATUS_SUCCESSFUL') {
        const file = tarn.savedFiles().find((path) => path.endsWith(`/${video.name}`));
        await this.take(tarn, file ?? '', video, 'the page');
      } else {
        count('saves of the page that failed');
      }
      const times = (await told()).length;
      if (times !== 1) fault(`the page is told ${times} times of ${video.name}`);
      await page.evaluate(() => (window.heard = []));
      await pause(200);
    }
  }

  async killServer() {
    const tarn = this.homes.killed;
    while (!this.isOver()) {
      await pause(5000 + draw() * 25000);
      await tarn.end('SIGKILL');
      count('servers killed');
      // A command that goes on in its place is the home's engine until it is done.
      await until('a server in the place of the killed one', () => tarn.start().catch(() => count('starts refused')), 300);
    }
  }

  async repairOne() {
    for (let round = 0; !this.isOver(); ++round) {
      const kinds = Object.keys(this.recordings);
      const recording = this.recordings[kinds[round % kinds.length]];
      const result = join(this.folder, 'single.mp4');
      const ended = await run(['repair', recording.file, '-o', result], draw() < 0.25 ? draw() * 300 : undefined);
      if (ended.isKilled) count('repairs killed');
      else if (ended.code !== 0 && ended.code !== 5) fault(`repair ended with ${ended.code}: ${ended.errors}`);
      else count('single repairs');
      if (existsSync(result) && !isWhole(result, recording)) fault(`a repair of ${recording.file} is not whole`);
      if (!existsSync(result) && !ended.isKilled) fault(`a repair of ${recording.file} is not there`);
      rmSync(result, { force: true });
      await pause(500);
    }
  }

  /** A folder, repaired with kills until a run comes to its end; then all is looked at, and it begins anew. */
  async repairFolder() {
    const [input, output, report] = ['recordings', 'mended', 'report.jsonl'].map((name) => join(this.folder, name));
    mkdirSync(input);
    for (const [kind, { file }] of Object.entries(this.recordings)) {
      for (const copy of [1, 2, 3]) copyFileSync(file, join(input, `${kind}-${copy}.mp4`));
    }
    const args = ['repair', '-r', input, '--output-dir', output, '--skip-done', '--report', report, '--jobs', '2'];
    while (!this.isOver()) {
      for (;;) {
        const ended = await run(args, draw() < 0.5 ? 200 + draw() * 2000 : undefined);
        if (!ended.isKilled) break;
        count('batches killed');
      }
      for (const name of readdirSync(input)) {
        const recording = this.recordings[name.split('-')[0]];
        if (!isWhole(join(output, name), recording)) fault(`in the batch ${name} is not whole`);
      }
      const told = new Set(lines(readFileSync(report, 'utf8')).map(({ input: file }) => file));
      if (told.size !== readdirSync(input).length) fault(`the report tells of ${told.size} files`);
      count('batches of 18 files');
      rmSync(output, { recursive: true });
      rmSync(report);
      await pause(500);
    }
  }

  /** What is left in a home once all is over: nothing under way, and no video that is not whole. */
  async lookAtTheEnd(where) {
    const { home } = this.homes[where];
    const list = async () => lines((await run(['--home', home, 'downloads', '--json'])).output);
    await until(`the end of all downloads of the ${where} home`, async () =>
      (await list()).every(({ state }) => state !== 'pending'), 300);
    for (const { path } of lines((await run(['--home', home, 'library', '--json'])).output)) {
      const [, kind] = /([a-z]+)-\d+\.mp4$/.exec(path);
      count('videos of killed commands');
      if (!isWhole(path, this.recordings[kind])) fault(`${path} of the ${where} home is not whole`);
    }
    await until(`nothing is left in Documents of the ${where} home`, () => {
      const documents = join(home, 'Documents');
      return !existsSync(documents) || readdirSync(documents).filter((name) => name.endsWith('.mp4')).length === 0;
    }, 60).catch((error) => fault(error.message));
  }
}

// --- Whether it is flat ---

/** Memory in KiB, descriptors and threads of a process, as the kernel has them. */
function look(pid) {
  const status = readFileSync(`/proc/${pid}/status`, 'utf8');
  const figure = (name) => Number(new RegExp(`^${name}:\\s+(\\d+)`, 'm').exec(status)[1]);
  return { memory: figure('VmRSS'), descriptors: readdirSync(`/proc/${pid}/fd`).length, threads: figure('Threads') };
}

class Watch {
  samples = [];
  begin = Date.now();
  constructor(pid, file) {
    this.pid = pid;
    this.file = file;
    writeFileSync(file, 'seconds,memory KiB,descriptors,threads\n');
    this.timer = setInterval(() => this.sample(), 10_000);
  }
  sample() {
    const { memory, descriptors, threads } = look(this.pid);
    const seconds = Math.round((Date.now() - this.begin) / 1000);
    this.samples.push({ seconds, memory, descriptors, threads });
    appendFileSync(this.file, `${seconds},${memory},${descriptors},${threads}\n`);
  }
  stop() {
    clearInterval(this.timer);
  }

  /** The first quarter is for warming up. Of the rest, the median of the last third is held against the first third's. */
  judge(what, unit, allowed) {
    const rest = this.samples.slice(Math.floor(this.samples.length / 4));
    const third = Math.max(1, Math.floor(rest.length / 3));
    const median = (samples) => samples.map((sample) => sample[what]).sort((a, b) => a - b)[samples.length >> 1];
    const [before, after] = [median(rest.slice(0, third)), median(rest.slice(-third))];
    const grown = after - before;
    console.log(`  ${what}: ${before} ${unit} after the warm-up, ${after} at the end (${allowed(before)} more are allowed)`);
    if (grown > allowed(before)) fault(`${what} of tarn serve grew by ${grown} ${unit}`);
  }
}

/** All at the same time until it is over, and what is left then. */
async function work(soak, pages, watch) {
  await Promise.all([
    soak.saveByCommands('steady'),
    soak.saveByCommands('killed'),
    soak.saveByPage(pages.steady),
    soak.killServer(),
    soak.repairOne(),
    soak.repairFolder(),
  ]);
  watch.stop();
  for (const where of Object.keys(soak.homes)) await soak.lookAtTheEnd(where);
  await pages.killed.waitForSelector('html[data-tarn-connection=live]').catch(() => fault('the page does not come back'));
  await pause(15_000); // what was kept open for a while is closed
}

function judge(watch, atRest, after) {
  for (const what of Object.keys(figures).sort()) console.log(`  ${what}: ${figures[what]}`);
  watch.judge('memory', 'KiB', (before) => Math.round(before / 20) + 4096);
  watch.judge('descriptors', '', () => 8);
  watch.judge('threads', '', () => 4);
  console.log(`  at rest, before and after: ${JSON.stringify(atRest)}, ${JSON.stringify(after)}`);
  if (after.descriptors > atRest.descriptors + 8) fault(`${after.descriptors} descriptors are open at rest`);
  if (after.threads > atRest.threads + 4) fault(`${after.threads} threads are left at rest`);
  for (const what of ['the page', 'commands, steady home', 'commands, killed home']) {
    if (!figures[`videos saved by ${what}`]) fault(`no video was saved by ${what}`);
  }
}

async function main() {
  const place = fileURLToPath(new URL('../../build/soak/', import.meta.url));
  mkdirSync(place, { recursive: true });
  const soak = new Soak();
  await soak.server.start();
  const browser = await launchBrowser();
  try {
    const pages = {};
    for (const [where, tarn] of Object.entries(soak.homes)) {
      await tarn.start();
      pages[where] = await (await browser.newContext()).newPage();
      await pages[where].goto(tarn.entry);
      await pages[where].waitForSelector('html[data-tarn-connection=live]');
    }
    await keepEvents(pages.steady);
    const server = soak.homes.steady.process.pid;
    const atRest = look(server);
    const watch = new Watch(server, join(place, 'serve.csv'));
    console.log(`${minutes} minutes, seed ${seed}; the samples are in build/soak/serve.csv`);
    await work(soak, pages, watch);
    judge(watch, atRest, look(server));
  } finally {
    await browser.close();
    for (const tarn of Object.values(soak.homes)) await tarn.stop();
    soak.server.stop();
    rmSync(soak.folder, { recursive: true });
  }
  console.log(faults.length ? `${faults.length} faults` : 'no fault');
  process.exit(faults.length ? 1 : 0);
}

await main();
