'use strict';

// An upload server. PUT /NAME with the header x-sha256 stores a file, once. GET /NAME sends it.
//
//   const server = await openServer('/srv/app/data');
//   server.listen(8080, '127.0.0.1');
//
// An upload grows piece by piece in incoming/NAME. Only if the bytes on the disk have the hash that the
// client sent, they become files/NAME, so no reader finds an incomplete file. The answer 201 means that
// everything is flushed. Other processes may change the directory meanwhile, but one server at a time
// uses it.

const { createHash } = require('node:crypto');
const { once } = require('node:events');
const fs = require('node:fs');
const http = require('node:http');
const os = require('node:os');
const path = require('node:path');
const { monitorEventLoopDelay } = require('node:perf_hooks');
const { pipeline } = require('node:stream/promises');
const { setTimeout: pause } = require('node:timers/promises');
const tarvek = require('tarvek/promises');

// An append waits for the disk, so a piece is large. All uploads together have this many turns, and
// each turn takes the memory of a piece three times at most: as chunks, joined, and waiting for a thread.
const PIECE = 2 * 2 ** 20;
let turns = 16;
const waiting = [];

const STATUS = {
  ECONNRESET: 400, // the client has gone
  URIError: 400,
  PATH_OUT_OF_ROOT: 403,
  NOT_FOUND: 404,
  OPTIMISTIC_CONFLICT: 409,
  CANDIDATE_CHANGED: 422,
};

const candidateOf = (name) => ['incoming', name];
const fileOf = (name) => ['files', name];

// A process that replaces directories makes correct calls fail. Such a call changed nothing. The pauses
// grow, because an entry can be in the way for some milliseconds: 45 ms in all.
async function retry(call) {
  for (let attempt = 1; ; ++attempt) {
    try {
      return await call();
    } catch (error) {
      if (error.code !== 'PATH_OUT_OF_ROOT' || attempt === 10) throw error;
    }
    await pause(attempt);
  }
}

async function inTurn(work) {
  while (turns === 0) await new Promise((resolve) => waiting.push(resolve));
  --turns;
  try {
    return await work();
  } finally {
    ++turns;
    waiting.shift()?.();
  }
}

async function nextPiece(chunks) {
  const parts = [];
  let size = 0;
  while (size < PIECE) {
    const { value, done } = await chunks.next();
    if (done) break;
    parts.push(value);
    size += value.length;
  }
  return Buffer.concat(parts);
}

// A client that sends nothing keeps its turn until the server's `requestTimeout`, 5 minutes.
async function receive(root, candidate, request) {
  // If storing fails, the request stays open for the answer.
  const chunks = request.iterator({ destroyOnReturn: false });
  let size = 0;
  const storeNext = async () => {
    const piece = await nextPiece(chunks);
    // The first piece replaces what an earlier attempt may have left.
    if (size === 0) await retry(() => tarvek.write(root, candidate, piece));
    else await retry(() => tarvek.append(root, candidate, size, size, piece));
    size += piece.length;
    return piece.length < PIECE;
  };
  for (let isComplete = false; !isComplete; ) isComplete = await inTurn(storeNext);
}

async function publish(root, name, sha256) {
  const file = await retry(() => tarvek.openFile(root, candidateOf(name)));
  try {
    await retry(() => tarvek.publishFile(root, file, candidateOf(name), fileOf(name), { sha256 }));
  } finally {
    await file.close();
  }
}

// After a failure or a crash: a file with both names keeps its final one, and a candidate that was not
// published is removed.
async function settle(root, name) {
  try {
    const state = await retry(() => tarvek.finishPublish(root, candidateOf(name), fileOf(name)));
    if (state !== 'candidate') return;
  } catch (error) {
    // Another file has the final name. Then the candidate is not needed.
    if (error.code !== 'OPTIMISTIC_CONFLICT') throw error;
  }
  await retry(() => tarvek.remove(root, candidateOf(name)));
}

// Another process can put anything in the way. That must not stop the server. The next start tries again.
async function settleIfPossible(root, name) {
  await settle(root, name).catch((error) => console.error(JSON.stringify(name), error));
}

async function store({ root, uploading }, name, request) {
  const { 'x-sha256': sha256 } = request.headers;
  if (!/^[0-9a-f]{64}$/i.test(sha256)) return 400;
  if (await retry(() => tarvek.exists(root, fileOf(name)))) return 409;
  if (uploading.has(name)) return 409;
  uploading.add(name);
  try {
    await receive(root, candidateOf(name), request);
    await publish(root, name, sha256);
    return 201;
  } catch (error) {
    await settleIfPossible(root, name);
    throw error;
  } finally {
    uploading.delete(name);
  }
}

async function send(root, name, response) {
  const file = await retry(() => tarvek.openFile(root, fileOf(name)));
  try {
    const { size } = await file.stat();
    response.writeHead(200, { 'content-length': size, 'content-type': 'application/octet-stream' });
    if (size === 0) response.end();
    else await pipeline(file.createReadStream({ end: size - 1 }), response);
  } finally {
    await file.close();
  }
}

async function answer(site, request, response) {
  const name = decodeURIComponent(request.url.slice(1));
  if (request.method === 'GET') await send(site.root, name, response);
  else response.writeHead(request.method === 'PUT' ? await store(site, name, request) : 405).end();
}

function fail(error, response) {
  const status = STATUS[error.code ?? error.name] ?? 500;
  if (status === 500) console.error(error);
  // The client has the status and a length. Only a broken connection tells it that bytes are missing.
  if (response.headersSent) response.destroy();
  else response.writeHead(status).end();
}

async function recover(root) {
  for (const top of ['incoming', 'files']) await retry(() => tarvek.ensureDirectory(root, [top]));
  // No `write` of this server runs yet.
  await retry(() => tarvek.removeLeftovers(root, ['incoming'], { olderThan: 0 }));
  for (const name of await retry(() => tarvek.list(root, ['incoming']))) {
    await settleIfPossible(root, name);
  }
}

async function openServer(directory) {
  const root = await retry(() => tarvek.openRoot(fs.realpathSync(directory)));
  await recover(root);
  const site = { root, uploading: new Set() };
  const server = http.createServer((request, response) => {
    answer(site, request, response).catch((error) => fail(error, response));
  });
  return server.on('close', () => tarvek.close(root));
}

module.exports = { openServer };

async function demonstrate(server) {
  await once(server.listen(0, '127.0.0.1'), 'listening');
  const at = `http://127.0.0.1:${server.address().port}/`;
  const body = Buffer.alloc(2 ** 20, 'a');
  const headers = { 'x-sha256': createHash('sha256').update(body).digest('hex') };
  const put = (name, other) => fetch(at + name, { method: 'PUT', body, headers, ...other });

  const delay = monitorEventLoopDelay();
  delay.enable();
  const start = performance.now();
  await Promise.all(Array.from({ length: 64 }, (_, number) => put(`file-${number}`)));
  console.log(`64 uploads of 1 MiB at once: ${(performance.now() - start).toFixed(0)} ms`);
  console.log(`Longest block of the main thread: ${(delay.max / 1e6).toFixed(0)} ms`);
  delay.disable();

  const bytes = await (await fetch(`${at}file-7`)).arrayBuffer();
  console.log(`The same bytes come back: ${body.equals(Buffer.from(bytes))}`);
  const calls = [put('file-7'), put('new', { body: 'other' }), put('..%2Fnew'), fetch(`${at}new`)];
  const [taken, wrong, outside, missing] = (await Promise.all(calls)).map(({ status }) => status);
  console.log('Taken:', taken, 'wrong hash:', wrong, 'outside:', outside, 'missing:', missing);
  server.close();
  server.closeAllConnections();
}

if (require.main === module) {
  const directory = fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-server-'));
  const remove = () => fs.rmSync(directory, { recursive: true });
  openServer(directory).then(demonstrate).finally(remove);
}
