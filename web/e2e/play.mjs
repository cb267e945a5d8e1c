// Plays movies in Chromium and prints what a viewer sees and hears, one line of JSON for each:
//   node e2e/play.mjs FILE SECONDS...     SECONDS: from where it plays
// A picture carries its number as eight fields along its upper edge; a beep is louder than the rest.

import { basename } from 'node:path';

import { MediaServer, launchBrowser } from './support.mjs';

/** In the page: loads the movie, looks at pictures from the first to the last, and plays it to its end. */
async function play([address, from]) {
  const video = document.createElement('video');
  const canvas = new OffscreenCanvas(320, 180).getContext('2d', { willReadFrequently: true });
  const happens = (name) =>
    new Promise((resolve, reject) => {
      video.addEventListener(name, resolve, { once: true });
      video.addEventListener('error', () => reject(new Error(video.error.message)), { once: true });
      setTimeout(() => reject(new Error(`no ${name}`)), 60000);
    });
  const number = () => {
    canvas.drawImage(video, 0, 0, 320, 180);
    const bit = (n) => (canvas.getImageData(20 + 40 * n, 10, 1, 1).data[0] > 127 ? 1 << n : 0);
    return [0, 1, 2, 3, 4, 5, 6, 7].reduce((sum, n) => sum + bit(n), 0);
  };

  const look = async (at) => {
    const sought = happens('seeked');
    const drawn = new Promise((resolve) => video.requestVideoFrameCallback(resolve));
    video.currentTime = at;
    await sought;
    await Promise.race([drawn, new Promise((resolve) => setTimeout(resolve, 2000))]);
    return [at, number()];
  };

  const loaded = happens('loadeddata');
  video.src = address;
  await loaded;
  const { duration } = video;
  const seen = { duration, beeps: [], pictures: from > 0 ? [] : [[0, number()]] };
  for (let at = from + 0.01; at < duration - 0.02; at += (duration - from) / 8) seen.pictures.push(await look(at));
  seen.pictures.push(await look(duration - 0.02));
  await look(from);

  // The worklet stands where the sound goes to the speakers. It tells when a beep begins.
  const audio = new AudioContext({ latencyHint: 'interactive' });
  const code = `registerProcessor('ear', class extends AudioWorkletProcessor {
    process([[samples]]) {
      const at = samples ? samples.findIndex((sample) => Math.abs(sample) > 0.3) : -1;
      if (at >= 0 && !(currentTime - this.last < 0.1)) this.port.postMessage(currentTime + at / sampleRate);
      if (at >= 0) this.last = currentTime;
      return true;
    }
  })`;
  await audio.audioWorklet.addModule(URL.createObjectURL(new Blob([code], { type: 'text/javascript' })));
  const ear = new AudioWorkletNode(audio, 'ear');
  audio.createMediaElementSource(video).connect(ear).connect(audio.destination);
  ear.port.onmessage = ({ data }) => seen.beeps.push(data);
  await audio.resume();

  const ended = happens('ended');
  await video.play();
  const apart = []; // the two clocks
  const timer = setInterval(() => apart.push(video.currentTime - audio.currentTime), 20);
  await ended;
  clearInterval(timer);
  const shift = apart.sort((one, other) => one - other)[Math.floor(apart.length / 2)];
  seen.beeps = seen.beeps.map((beep) => beep + shift);
  seen.corrupted = video.getVideoPlaybackQuality().corruptedVideoFrames;
  await audio.close();
  return seen;
}

const browser = await launchBrowser(['--autoplay-policy=no-user-gesture-required']);
for (let at = 2; at < process.argv.length; at += 2) {
  const [file, from] = [process.argv[at], Number(process.argv[at + 1])];
  const media = await new MediaServer().start(file);
  const page = await browser.newPage();
  await page.goto(media.address('login'));
  const playing = page.evaluate(play, [media.address('movie.mp4'), from]);
  const seen = await playing.catch((error) => ({ error: error.message }));
  console.log(JSON.stringify({ file: basename(file), ...seen }));
  await page.close();
  await media.stop();
}
await browser.close();
