// The native side of the bridge, in a browser over `tarn serve`. The host puts this script into the page's head in
// front of everything else, with three lines before it: `const tarnPlugins = [{name, methods: [{name, rtype}]}]`, the
// plug-ins and the methods that the engine has; `const tarnPageKey`, with which the page proves to a host that was
// started anew that it is one of its pages; and `const tarnHostFacts = {name, methods, log}`, what the host offers
// beside the bridge. The page's own bundle finds what it would find in the app: window.Capacitor with PluginHeaders,
// nativePromise and nativeCallback; and window.tarnHost, which no app has.
//
// One WebSocket carries all of it. A command that has not been answered is sent again after each reconnect under the
// same id, and the host answers it once; events that were missed come again, found by the number of the last one seen.
// A process that was started anew does not know the ids of the last one: it is only asked again, never told again.
// The page may follow the connection: see the attribute data-tarn-connection and the event "tarnconnection" below.
(() => {
  'use strict';

  const shortestDelay = 250; // milliseconds between two attempts to connect: doubled each time
  const longestDelay = 5000;
  const longestCommand = 256 << 10; // what the host takes; it could not say which command was too long
  const addressIsStale = 'The address of this page is no longer valid. Open the one that tarn serve prints.';

  const outcomeIsUnknown = 'The engine was started anew before it answered. Its list shows whether this was done.';

  const page = crypto.randomUUID(); // under this name the host knows which commands it has had
  const commands = new Map(); // by id: {text, repeatable, sent, resolve, reject}, not yet answered
  const listeners = new Map(); // by callback id: {plugin, event, callback}
  let waiting = []; // what to do when the connection is live
  let nextId = 1;

  let base = new URL('..', document.currentScript.src).pathname; // the host serves all below it, until it ends
  let state; // connecting, live, reconnecting or refused
  let socket = null; // the one in use or being opened
  let timer = 0; // of the next attempt
  let attempts = 0; // that failed since the connection was last live
  let epoch = ''; // of the host's process
  let lastSeq = 0; // of the last event seen

  // --- What the page sees of the connection ---

  function enter(newState, epochChanged = false) {
    if (newState === state && !epochChanged) return;
    state = newState;
    document.documentElement.dataset.tarnConnection = state;
    window.dispatchEvent(new CustomEvent('tarnconnection', { detail: { state, epochChanged } }));
  }

  // --- The socket ---

  function connect() {
    clearTimeout(timer);
    const query = new URLSearchParams({ page, epoch, seq: lastSeq });
    const opened = new WebSocket(`ws://${location.host}${base}bridge/socket?${query}`);
    let greeted = false;
    socket = opened;
    opened.onmessage = ({ data }) => {
      if (socket !== opened) return;
      const message = JSON.parse(data);
      if (message.hello) greeted = true;
      take(message);
    };
    opened.onclose = () => {
      if (socket !== opened) return;
      socket = null;
      if (greeted) reconnectLater();
      else void askWhy();
    };
  }

  function reconnectLater() {
    if (state !== 'connecting') enter('reconnecting');
    const delay = Math.min(shortestDelay * 2 ** attempts, longestDelay);
    attempts += 1;
    clearTimeout(timer);
    timer = setTimeout(connect, delay * (0.75 + Math.random() / 2));
  }

  const ask = (address) => fetch(address, { cache: 'no-store' }).catch(() => null);

  // A script is not told why a WebSocket was refused. The host tells over HTTP.
  async function askWhy() {
    const answer = await ask(`${base}bridge/alive`);
    if (answer?.status === 403) return rejoin();
    if (!socket) reconnectLater();
  }

  // A host that was started anew has another path and another cookie. It gives them for a proof, which is of no use to
  // whoever else may listen here: it is made of a challenge and this origin, and the key stays in the page.
  async function rejoin() {
    const { challenge } = (await (await ask('/rejoin'))?.json().catch(() => null)) ?? {};
    const answer = challenge && (await ask(`/rejoin?proof=${await prove(challenge)}`));
    if (socket) return;
    if (answer?.status === 403) return refuse();
    const { path } = (answer?.ok && (await answer.json().catch(() => null))) || {};
    if (path) moveTo(path);
    reconnectLater();
  }

  async function prove(challenge) {
    const bytes = (text) => new TextEncoder().encode(text);
    const hmac = { name: 'HMAC', hash: 'SHA-256' };
    const key = await crypto.subtle.importKey('raw', bytes(tarnPageKey), hmac, false, ['sign']);
    const proof = await crypto.subtle.sign('HMAC', key, bytes(`${challenge}\n${location.origin}`));
    return Array.from(new Uint8Array(proof), (byte) => byte.toString(16).padStart(2, '0')).join('');
  }

  // With the page's address all that is relative to it moves along.
  function moveTo(path) {
    const { pathname, search, hash } = location;
    if (pathname.startsWith(base)) {
      history.replaceState(history.state, '', path + pathname.slice(base.length) + search + hash);
    }
    base = path;
  }

  function refuse() {
    enter('refused');
    for (const id of [...commands.keys()]) settle(id, addressIsStale);
  }

  function connectNow() {
    if (socket) return;
    attempts = 0;
    connect();
  }

  function send(text) {
    if (state === 'live') socket?.send(text);
  }

  function sendCommand(command) {
    command.sent ||= state === 'live';
    send(command.text);
  }

  function settle(id, reject, answer) {
    const command = commands.get(id);
    commands.delete(id);
    if (reject !== undefined) command.reject(new Error(reject));
    else command.resolve(answer);
  }

  function sendVisibility() {
    send(JSON.stringify({ visible: document.visibilityState === 'visible' }));
  }

  // --- Messages of the host ---

  function take(message) {
    if (message.hello) return greet(message.hello);
    if (message.event) return deliver(message);
    if (commands.has(message.id)) return settle(message.id, message.reject?.message, message.resolve);
    if (message.reject) console.warn(`The host could not take a message: ${message.reject.message}`);
  }

  function greet(hello) {
    const epochChanged = epoch !== '' && epoch !== hello.epoch;
    epoch = hello.epoch;
    // After a complete replay the numbers go on where they were; else those before the hello are not to be had.
    if (hello.replay !== 'complete') lastSeq = hello.seq;
    attempts = 0;
    const unanswered = [...commands]; // but for those that the page gives now, on hearing that it is live
    enter('live', epochChanged);
    sendVisibility();
    for (const [id, command] of unanswered) {
      if (epochChanged && command.sent && !command.repeatable) settle(id, outcomeIsUnknown);
      else sendCommand(command);
    }
    for (const proceed of waiting.splice(0)) proceed();
  }

  function deliver({ seq, plugin, event, data }) {
    if (seq <= lastSeq) return;
    lastSeq = seq;
    for (const listener of [...listeners.values()]) {
      if (listener.plugin !== plugin || listener.event !== event) continue;
      try {
        listener.callback(data);
      } catch (error) {
        reportError(error); // one listener's fault is not the next one's
      }
    }
  }

  // --- The native side ---

  /** A half of a surrogate pair is no text to the host, and such a command would get no answer. */
  function wellFormed(_key, value) {
    return typeof value === 'string' ? (value.toWellFormed?.() ?? value) : value;
  }

  function command(plugin, method, options) {
    return new Promise((resolve, reject) => {
      if (state === 'refused') return reject(new Error(addressIsStale));
      const id = String(nextId++);
      const text = JSON.stringify({ id, plugin, method, options: options ?? {} }, wellFormed);
      if (new Blob([text]).size > longestCommand) return reject(new Error('The command is too long'));
      const entry = { text, repeatable: method.startsWith('get'), sent: false, resolve, reject };
      commands.set(id, entry);
      sendCommand(entry);
    });
  }

  // The core has no catch here: an answer that does not come is better than a rejection.
  function addListener(plugin, { eventName }, callback) {
    const callbackId = String(nextId++);
    listeners.set(callbackId, { plugin, event: eventName, callback });
    if (state === 'live') return Promise.resolve(callbackId);
    return new Promise((resolve) => waiting.push(() => resolve(callbackId)));
  }

  function removeAllListeners(plugin) {
    for (const [callbackId, listener] of listeners) {
      if (listener.plugin === plugin) listeners.delete(callbackId);
    }
  }

  window.CapacitorCustomPlatform = { name: 'tarn', plugins: {} };
  window.Capacitor = {
    PluginHeaders: tarnPlugins,
    nativePromise(plugin, method, options) {
      if (method !== 'removeAllListeners') return command(plugin, method, options);
      removeAllListeners(plugin);
      return Promise.resolve();
    },
    nativeCallback(plugin, method, options, callback) {
      if (method === 'addListener') return addListener(plugin, options, callback);
      if (method === 'removeListener') listeners.delete(options.callbackId);
      return Promise.resolve();
    },
  };

  // The page asks the host by HTTP, relative to its own address; what other pages change comes as an event.
  window.tarnHost = Object.freeze({
    methods: tarnHostFacts.methods,
    log: tarnHostFacts.log,
    onChange: (callback) => void addListener(tarnHostFacts.name, { eventName: 'changed' }, ({ what }) => callback(what)),
  });

  document.addEventListener('visibilitychange', () => {
    sendVisibility();
    if (document.visibilityState === 'visible') connectNow();
  });
  window.addEventListener('online', connectNow);

  enter('connecting');
  connect();
})();
