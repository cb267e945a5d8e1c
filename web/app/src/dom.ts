/** The element with this id, which index.html has. */
export function byId<T extends HTMLElement>(id: string, type: new () => T): T {
  const element = document.getElementById(id);
  if (!(element instanceof type)) throw new Error(`The page has no ${type.name} #${id}`);
  return element;
}

/** The one element under `root` with this selector. */
export function find<T extends Element>(root: ParentNode, selector: string, type: new () => T): T {
  const element = root.querySelector(selector);
  if (!(element instanceof type)) throw new Error(`The page has no ${type.name} ${selector}`);
  return element;
}

/** A new copy of what the template with this id holds: one element. */
export function fromTemplate(id: string): HTMLElement {
  const copy = document.importNode(byId(id, HTMLTemplateElement).content, true).firstElementChild;
  if (!(copy instanceof HTMLElement)) throw new Error(`The template #${id} is empty`);
  return copy;
}

/** Makes `child` the one with this index in `parent`. One that is there is left alone: a move would disturb it. */
export function putAt(parent: Element, index: number, child: Element): void {
  const place = parent.children[index] ?? null;
  if (place !== child) parent.insertBefore(child, place);
}

/** Does what may move elements; one that moves would lose the focus. */
export function keepFocus(work: () => void): void {
  const focused = document.activeElement;
  work();
  if (focused instanceof HTMLElement && focused !== document.activeElement) focused.focus({ preventScroll: true });
}

/** Hides an element or shows it. Whoever was in one that goes is led to `rest`. */
export function hide(element: HTMLElement, isHidden: boolean, rest: HTMLElement | null): void {
  const hasFocus = element.contains(document.activeElement);
  element.hidden = isHidden;
  if (isHidden && hasFocus) rest?.focus({ preventScroll: true });
}

/** Removes an item of a list. Whoever was in it goes on in its neighbour, not at the top of the page, or else in `rest`. */
export function removeItem(item: Element, rest: HTMLElement): void {
  if (item.contains(document.activeElement)) {
    const neighbour = item.nextElementSibling ?? item.previousElementSibling;
    (neighbour?.querySelector<HTMLElement>('button:not([hidden])') ?? rest).focus({ preventScroll: true });
  }
  item.remove();
}

export function setText(element: Element, text: string): void {
  if (element.textContent !== text) element.textContent = text;
}

/** Tells people who do not see the page what has happened. */
export function announce(words: string): void {
  byId('announcer', HTMLElement).textContent = words;
}
