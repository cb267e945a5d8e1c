import type { Span, Summary, Timeline } from './host.js';
import { secondsText } from './text.js';

const space = 'http://www.w3.org/2000/svg';
const width = 1000; // units across; the lane is stretched to the room that it has

/** Below this a person sees and hears no difference, in seconds. */
const unnoticed = 0.02;

/** Picture and sound on one timeline, before and after. Nothing when the host tells of neither. */
export function plotOf({ before, after }: Summary): HTMLElement | undefined {
  const last = Math.max(...[before, after].flatMap((timeline) => (timeline ? ends(timeline) : [])), 0);
  if (last === 0) return undefined;
  const figure = document.createElement('figure');
  figure.className = 'plot';
  figure.setAttribute('role', 'img');
  figure.setAttribute('aria-label', words(before, after));
  for (const [title, timeline] of [['Before', before], ['After', after]] as const) {
    if (!timeline) continue;
    figure.append(lane(`${title}: picture`, 'picture', timeline.video, last));
    figure.append(lane(`${title}: sound`, 'sound', timeline.audio, last));
  }
  const axis = document.createElement('p');
  axis.className = 'plot-axis';
  for (const moment of [0, last / 2, last]) {
    axis.append(Object.assign(document.createElement('span'), { textContent: secondsText(moment) }));
  }
  figure.append(axis);
  return figure;
}

/** How sound and picture lie to each other, in a sentence; nothing when the file does not tell. */
export function soundWords({ before, after }: Summary): string | undefined {
  const parts = [
    ['before', before],
    ['after', after],
  ] as const;
  const told = parts.flatMap(([when, timeline]) => {
    const place = timeline && placeOf(timeline);
    return place ? [`${when}, ${place}`] : [];
  });
  return told.length > 0 ? `Sound against picture: ${told.join('; ')}.` : undefined;
}

function placeOf({ soundBehindAtStart: start, soundBehindAtEnd: end }: Timeline): string | undefined {
  if (start === undefined && end === undefined) return undefined;
  const places = [
    ...(start === undefined ? [] : [[start, 'at the start'] as const]),
    ...(end === undefined ? [] : [[end, 'at the end'] as const]),
  ];
  if (places.every(([seconds]) => Math.abs(seconds) < unnoticed)) return 'together';
  return places
    .map(([seconds, where]) => {
      if (Math.abs(seconds) < unnoticed) return `together ${where}`;
      return `${secondsText(Math.abs(seconds))} ${seconds > 0 ? 'behind' : 'ahead'} ${where}`;
    })
    .join(', ');
}

function words(before?: Timeline, after?: Timeline): string {
  const pieces = (timeline: Timeline) =>
    `picture in ${timeline.video.length} and sound in ${timeline.audio.length} pieces`;
  const parts = [before && `before, ${pieces(before)}`, after && `after, ${pieces(after)}`].filter(Boolean);
  return `Timeline of picture and sound: ${parts.join('; ')}`;
}

function ends({ video, audio }: Timeline): number[] {
  return [...video, ...audio].map(([, end]) => end);
}

function lane(label: string, kind: 'picture' | 'sound', spans: Span[], last: number): HTMLElement {
  const row = document.createElement('div');
  row.className = 'plot-lane';
  const name = Object.assign(document.createElement('span'), { textContent: label });
  const drawing = document.createElementNS(space, 'svg');
  drawing.setAttribute('viewBox', `0 0 ${width} 10`);
  drawing.setAttribute('preserveAspectRatio', 'none');
  drawing.setAttribute('aria-hidden', 'true');
  drawing.setAttribute('class', `plot-${kind}`);
  for (const [start, end] of spans) {
    const bar = document.createElementNS(space, 'rect');
    const from = Math.max(0, start / last) * width;
    bar.setAttribute('x', from.toFixed(2));
    bar.setAttribute('width', Math.max(0, (end / last) * width - from).toFixed(2));
    bar.setAttribute('height', '10');
    drawing.append(bar);
  }
  row.append(name, drawing);
  return row;
}
