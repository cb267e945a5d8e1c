import { byId, setText } from './dom.js';

export type ConnectionState = 'connecting' | 'live' | 'reconnecting' | 'refused';

interface Change {
  state: ConnectionState;
  /** The engine's process is another one than before. */
  epochChanged: boolean;
}

const words: Record<ConnectionState, string> = {
  connecting: 'Connecting …',
  live: 'Connected',
  reconnecting: 'Reconnecting …',
  refused: 'Not connected',
};

const notes: Partial<Record<ConnectionState, string>> = {
  reconnecting: 'The engine does not answer. What you start now is sent as soon as it does.',
  refused: 'The address of this page is no longer valid. Open the page again from where you got it.',
};

function currentState(): ConnectionState | undefined {
  return document.documentElement.dataset.tarnConnection as ConnectionState | undefined;
}

export function isLive(): boolean {
  return currentState() === 'live';
}

/** Shows where the connection to the engine stands, if the host tells; else it is taken as live. */
export function followConnection(onLive: (epochChanged: boolean) => void): void {
  const show = ({ state, epochChanged }: Change) => {
    const badge = byId('connection', HTMLElement);
    badge.dataset.state = state;
    badge.hidden = false;
    setText(byId('connection-words', HTMLElement), words[state]);
    const note = byId('connection-note', HTMLElement);
    setText(note, notes[state] ?? '');
    note.hidden = note.textContent === '';
    note.dataset.state = state;
    if (state === 'live') onLive(epochChanged);
  };
  window.addEventListener('tarnconnection', (event) => show((event as CustomEvent<Change>).detail));
  const state = currentState();
  if (state) show({ state, epochChanged: false });
  else onLive(false);
}
