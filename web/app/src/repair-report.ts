import type { Summary } from './host.js';
import { plotOf, soundWords } from './plot.js';
import { sentence } from './text.js';

/** What was wrong with a video, what was done, and sound against picture before and after, to be opened. */
export class RepairReport {
  private shown = '';

  constructor(private readonly place: HTMLElement) {}

  show(summary: Summary | undefined, name: string): void {
    const text = JSON.stringify(summary) ?? '';
    if (text === this.shown) return;
    this.shown = text;
    const isNews = summary !== undefined && (summary.wrong.length > 0 || summary.done.length > 0);
    this.place.hidden = !isNews;
    this.place.replaceChildren(...(isNews ? [report(summary, name)] : []));
  }
}

function report(summary: Summary, name: string): HTMLElement {
  const details = document.createElement('details');
  const heading = Object.assign(document.createElement('summary'), { textContent: 'What was repaired' });
  heading.append(Object.assign(document.createElement('span'), { className: 'unseen', textContent: `: ${name}` }));
  details.append(heading, ...list('What was wrong', summary.wrong), ...list('What was done', summary.done));
  const sound = soundWords(summary);
  if (sound !== undefined) details.append(Object.assign(document.createElement('p'), { textContent: sound }));
  const plot = plotOf(summary);
  if (plot) details.append(plot);
  return details;
}

function list(title: string, sentences: string[]): HTMLElement[] {
  if (sentences.length === 0) return [];
  const items = document.createElement('ul');
  for (const words of sentences) {
    items.append(Object.assign(document.createElement('li'), { textContent: sentence(words) }));
  }
  return [Object.assign(document.createElement('h3'), { textContent: title }), items];
}
