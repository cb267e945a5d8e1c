import { offers } from './host.js';

/** The host makes one at a time; more requests would only hold the browser's few connections. */
const mostAtOnce = 2;

const queue: (() => Promise<void>)[] = [];
const wanted = new WeakMap<Element, string>();
let running = 0;

const nearby = new IntersectionObserver(
  (entries) => {
    for (const { target, isIntersecting } of entries) {
      if (!isIntersecting) continue;
      nearby.unobserve(target);
      queue.push(() => load(target, wanted.get(target)!));
      next();
    }
  },
  { rootMargin: '300px' },
);

/** Puts the first picture of a video into `frame` once that comes near. Without one the frame stays as it is. */
export function fetchPoster(assetId: string, frame: Element): void {
  if (!offers('getPoster')) return;
  wanted.set(frame, assetId);
  nearby.observe(frame);
}

function next(): void {
  while (running < mostAtOnce) {
    const work = queue.shift();
    if (!work) return;
    running += 1;
    void work().finally(() => {
      running -= 1;
      next();
    });
  }
}

async function load(frame: Element, assetId: string): Promise<void> {
  if (!frame.isConnected) return;
  const picture = new Image();
  picture.alt = '';
  picture.src = `posters/${encodeURIComponent(assetId)}`;
  await picture.decode().then(
    () => frame.prepend(picture),
    () => undefined,
  );
}
