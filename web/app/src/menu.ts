/** What can be chosen: something to do, or a file to keep. */
export type MenuItem =
  | { words: string; choose: () => void }
  | { words: string; href: string; filename: string };

let close: (() => void) | undefined;

/** Opens a menu under its button; arrow keys go through it, Escape and Tab close it. A second call closes it too. */
export function openMenu(button: HTMLButtonElement, label: string, items: MenuItem[]): void {
  const wasOpen = button.getAttribute('aria-expanded') === 'true';
  close?.();
  if (wasOpen) return;
  const menu = document.createElement('div');
  menu.className = 'menu';
  menu.setAttribute('role', 'menu');
  menu.setAttribute('aria-label', label);
  const leave = () => {
    close?.();
    button.focus();
  };
  const entries = items.map((item) => entryOf(item, leave));
  menu.append(...entries);
  button.after(menu);
  button.setAttribute('aria-expanded', 'true');

  const away = ({ target }: Event) => {
    if (target instanceof Node && !menu.contains(target) && !button.contains(target)) close?.();
  };
  close = () => {
    close = undefined;
    document.removeEventListener('pointerdown', away);
    button.setAttribute('aria-expanded', 'false');
    menu.remove();
  };
  document.addEventListener('pointerdown', away);
  menu.addEventListener('keydown', (event) => moveIn(entries, leave, event));
  entries[0]?.focus();
}

function entryOf(item: MenuItem, leave: () => void): HTMLElement {
  const entry = document.createElement('href' in item ? 'a' : 'button');
  entry.textContent = item.words;
  entry.setAttribute('role', 'menuitem');
  entry.tabIndex = -1;
  if (entry instanceof HTMLAnchorElement && 'href' in item) {
    entry.href = item.href;
    entry.download = item.filename;
  } else if (entry instanceof HTMLButtonElement) {
    entry.type = 'button';
  }
  entry.addEventListener('click', () => {
    leave(); // a dialog gives the focus back to what had it before
    if ('choose' in item) item.choose();
  });
  return entry;
}

function moveIn(entries: HTMLElement[], leave: () => void, event: KeyboardEvent): void {
  const at = entries.indexOf(document.activeElement as HTMLElement);
  const places: Record<string, number> = {
    ArrowDown: (at + 1) % entries.length,
    ArrowUp: (at + entries.length - 1) % entries.length,
    Home: 0,
    End: entries.length - 1,
  };
  const place = places[event.key];
  if (place !== undefined) {
    event.preventDefault();
    entries[place]?.focus();
  } else if (event.key === 'Escape' || event.key === 'Tab') {
    if (event.key === 'Escape') event.preventDefault();
    leave();
  }
}
