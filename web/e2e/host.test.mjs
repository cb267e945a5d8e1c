// What the host gives out, and to whom.

import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';

import { readDefinitions } from '../plugin/api-docs.mjs';
import { Tarn } from './support.mjs';

let tarn;

before(async () => {
  tarn = await new Tarn().start();
});
after(() => tarn.stop());

test('definitions.ts has the methods of the engine, no more and no less', async () => {
  const { text } = await tarn.ask('/bridge/native.js');
  const [plugin] = JSON.parse(/^const tarnPlugins = (.*);\n/.exec(text)[1]);
  const ofTheBridge = ['addListener', 'removeListener', 'checkPermissions', 'requestPermissions'];
  const engine = plugin.methods.filter(({ name }) => !ofTheBridge.includes(name));
  const declared = readDefinitions().methods.filter(({ name }) => name !== 'addListener');
  assert.equal(plugin.name, 'TarnBridge');
  assert.deepEqual(engine.map(({ name }) => name).sort(), declared.map(({ name }) => name).sort());
  for (const method of engine) assert.equal(method.rtype, 'promise', method.name);
});

test('a request is refused unless its host, origin, site, token and method are right', async () => {
  const port = tarn.port;
  const socket = {
    Connection: 'Upgrade',
    Upgrade: 'websocket',
    'Sec-WebSocket-Version': '13',
    'Sec-WebSocket-Key': 'dGhlIHNhbXBsZSBub25jZQ==',
    Origin: `http://127.0.0.1:${port}`,
  };
  const socketPath = '/bridge/socket?page=a&epoch=&seq=0';
  const cases = [
    ['as it should be', '/', {}, 200],
    ['the address as printed', `/?token=${tarn.token}`, { headers: { Cookie: null } }, 200],
    ['a socket as it should be', socketPath, { headers: socket }, 101],
    ['another host', '/', { headers: { Host: `tarn.example:${port}` } }, 421],
    ['another name of this host', '/albums', { headers: { Host: `localhost:${port}` } }, 421],
    ['another origin', '/albums', { headers: { Origin: 'http://tarn.example' } }, 403],
    ['another port of this host', '/albums', { headers: { Origin: `http://127.0.0.1:${port + 1}` } }, 403],
    ['another site', '/albums', { headers: { 'Sec-Fetch-Site': 'cross-site' } }, 403],
    ['no token', '/', { headers: { Cookie: null } }, 403],
    ['no token, at a video', '/videos/1', { headers: { Cookie: null } }, 403],
    ['no token, at the question for it', '/bridge/alive', { headers: { Cookie: null } }, 403],
    ['a wrong token', '/', { headers: { Cookie: `tarn-${port}=${tarn.token.replace(/./g, '0')}` } }, 403],
    ['a token that is cut off', '/', { headers: { Cookie: `tarn-${port}=${tarn.token.slice(0, -1)}` } }, 403],
    ['a wrong token in the address', '/?token=0', {}, 403],
    ['a socket without origin', socketPath, { headers: { ...socket, Origin: null } }, 403],
    ['a socket of another origin', socketPath, { headers: { ...socket, Origin: 'http://tarn.example' } }, 403],
    ['a socket without token', socketPath, { headers: { ...socket, Cookie: null } }, 403],
    ['a GET on a command', socketPath, { headers: { Origin: socket.Origin } }, 426],
    ['a POST', '/', { method: 'POST' }, 405],
    ['a large body', '/', { method: 'POST', body: Buffer.alloc(3 << 20) }, 413],
    ['a GET with a body', '/', { headers: { 'Content-Length': 4 }, body: 'body' }, 413],
    ['a chunked body', '/', { headers: { 'Transfer-Encoding': 'chunked' }, body: 'body' }, 413],
    ['a head without end', '/', { headers: { 'X-Long': 'x'.repeat(20000) } }, 431],
    ['a path that climbs', '/../../../../etc/passwd', {}, 404],
    ['a path that climbs in disguise', '/%2e%2e/%2e%2e/%2e%2e/CMakeLists.txt', {}, 404],
    ['a path that climbs behind a folder', '/bridge/..%2f..%2f..%2fCMakeLists.txt', {}, 404],
    ['a video that is not there', '/videos/..%2ftoken', {}, 404],
  ];
  for (const [name, path, how, status] of cases) {
    const answer = await tarn.ask(path, how);
    assert.equal(answer.status, status, `${name}: ${answer.text}`);
    assert.ok(!Object.keys(answer.headers).some((field) => field.startsWith('access-control-')), name);
    if (status < 200) continue;
    assert.equal(answer.headers['x-content-type-options'], 'nosniff', name);
    assert.match(answer.headers['content-security-policy'], /default-src 'none'/, name);
    assert.doesNotMatch(answer.headers['content-security-policy'], /unsafe/, name);
  }
  const { headers } = await tarn.ask(`/?token=${tarn.token}`, { headers: { Cookie: null } });
  assert.equal(headers['set-cookie'][0], `tarn-${port}=${tarn.token}; HttpOnly; SameSite=Strict; Path=/`);
});
