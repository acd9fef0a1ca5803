'use strict';

// The threads, and the calls that wait for them.
//
// One pool serves all roots of the JavaScript thread that loads this file. The first `open` starts it,
// and it ends with the last root. Each thread runs one call at a time. A call that finds no idle thread
// waits in one queue, first come, first served. A thread gets its next call when it is idle, or one call
// ahead if neither of the two waits for the disk for long: a call behind a flush would stand there even
// while other threads are idle.
//
// A call is { name, root, args, signal, onProgress }, and a root is a record made by `open`, which is
// open in every thread. `run` sends a call to one thread, `open` to all of them, and `close` closes a
// root everywhere. Each resolves to an answer: { result }, or { failure, cause } with the code and
// message of an error. The error itself is made where its stack names the caller.

const { AsyncResource } = require('node:async_hooks');
const path = require('node:path');
const { Worker } = require('node:worker_threads');
const { failureOf } = require('./failures.js');
const memory = require('./memory.js');
const { movedWith } = require('./messages.js');

// What a thread runs. Undefined in a bundle, where the path of this module is missing or relative.
const FILE = path.isAbsolute(module.path ?? '') ? path.join(__dirname, 'worker.js') : undefined;
const USUAL_THREADS = 4;
const MOST_THREADS = 16;
const BRIEF = ['exists', 'list', 'read', 'rootIdentity'];
// Without the environment and arguments of the program: what they preload would run in every thread.
const OPTIONS = { env: {}, execArgv: [], name: 'tarvek' };

// Threads start in this context. Otherwise every answer would arrive in the context of the request that
// opened the first root, and see its AsyncLocalStorage.
const context = new AsyncResource('tarvek');

// Keeps the process running while a call is pending. No thread does.
const alive = setInterval(() => {}, 2 ** 31 - 1).unref();

const threads = new Set();
const roots = new Set();
let size = 0;
let pending = 0;
let lastId = 0;

// Without a cause: the thread has run the call, and the function failed.
const isRefusal = ({ failure, cause }) => failure !== undefined && cause === undefined;
const failed = (message, cause) => ({
  failure: failureOf(),
  cause: new Error(message, cause && { cause }),
});

// --- The queue ----------------------------------------------------------------------------------

// Places in the order of arrival, { call } each. A call leaves its place empty: usually the one at the
// head, and one in the middle when its signal aborts it. Less than half of the places are empty.
let queue = [];
let head = 0;
let waiting = 0;

const isFilled = ({ call }) => call !== undefined;
const first = () => queue[head]?.call;

// Returns the place.
function enqueue(call) {
  const place = { call };
  queue.push(place);
  ++waiting;
  return place;
}

// Returns the call that had the place.
function vacate(place) {
  const { call } = place;
  place.call = undefined;
  if (--waiting * 2 <= queue.length) {
    queue = queue.filter(isFilled);
    head = 0;
  }
  while (head < queue.length && !isFilled(queue[head])) ++head;
  if (call.signal) unwatch(place, call.signal);
  return call;
}

// Removes and returns the first waiting call that `fits`, usually the one at the head.
function take(fits) {
  for (let index = head; index < queue.length; ++index) {
    const place = queue[index];
    if (isFilled(place) && fits(place.call)) return vacate(place);
  }
  return undefined;
}

// The places of the calls that wait, by their signal. A signal has one listener, because a program may
// pass the same one to thousands of calls, and only while one of them waits: the runtime keeps a signal
// of AbortSignal.any() as long as it has a listener.
const watched = new Map();

function abort({ target }) {
  for (const place of watched.get(target) ?? []) {
    const call = vacate(place);
    call.abort(target.reason);
    movedWith(call.args).filter(memory.isReusable).forEach(memory.keep);
  }
}

function watch(place, signal) {
  if (!watched.has(signal)) {
    signal.addEventListener('abort', abort);
    watched.set(signal, new Set());
  }
  watched.get(signal).add(place);
}

function unwatch(place, signal) {
  const places = watched.get(signal);
  // Most calls never wait.
  if (!places?.delete(place) || places.size > 0) return;
  watched.delete(signal);
  signal.removeEventListener('abort', abort);
}

// --- Threads ------------------------------------------------------------------------------------

const serves = (thread, root) => root === undefined || thread.roots.has(root);
const willServe = (thread, root) =>
  serves(thread, root) || [...thread.sent, ...thread.own].some(({ opens }) => opens === root);

const isBrief = (call) => BRIEF.includes(call?.name);

// The call that a thread should get now: one of its own, or one from the queue.
function nextFor(thread) {
  const { sent, own } = thread;
  const fits = ({ root }) => serves(thread, root);
  if (sent.length === 0) return own.shift() ?? take(fits);
  const mayGoAhead = sent.length === 1 && isBrief(sent[0]) && isBrief(first());
  return mayGoAhead && own.length === 0 && fits(first()) ? take(fits) : undefined;
}

function feed(thread) {
  for (let call = nextFor(thread); call; call = nextFor(thread)) {
    const { name, root, args, opens } = call;
    const target = opens && { id: opens.id, identity: opens.identity };
    try {
      thread.worker.postMessage({ name, root: root?.id, args, opens: target }, movedWith(args));
      thread.sent.push(call);
    } catch (cause) {
      // There was no memory for the message.
      call.settle({ failure: failureOf(), cause });
    }
  }
}

function receive(thread, answer) {
  if ('progress' in answer) {
    thread.sent[0].onProgress(answer.progress);
    return;
  }
  const call = thread.sent.shift();
  thread.hasAnswered = true;
  if (call.opens && !answer.failure) thread.roots.add(call.opens);
  if (call.name === 'close') thread.roots.delete(call.root);
  feed(thread);
  call.settle(answer);
  answer.memory.forEach(memory.keep);
}

// Sends a call to this thread alone. Its own calls go before those of the queue.
function runOn(thread, call) {
  return new Promise((settle) => {
    thread.own.push({ ...call, settle });
    feed(thread);
  });
}

const isStranded = ({ root }) => !Array.from(threads).some((thread) => willServe(thread, root));

// Settles the calls that no thread can run any more.
function settleStranded(cause) {
  const stranded = queue.filter((place) => isFilled(place) && isStranded(place.call));
  for (const place of stranded) {
    vacate(place).settle(failed('tarvek: no thread could open this root', cause));
  }
}

// The directory of a root may be gone from its path. Then the thread does without it.
function openAgain(thread, root) {
  const call = { name: 'openRoot', args: [root.path], opens: root };
  return runOn(thread, call).then(() => settleStranded());
}

function start() {
  const worker = context.runInAsyncScope(() => new Worker(FILE, OPTIONS));
  const thread = { worker, roots: new Set(), sent: [], own: [], hasAnswered: false };
  worker.on('message', (answer) => receive(thread, answer));
  worker.on('error', (error) => {
    thread.error = error;
  });
  worker.on('messageerror', () => worker.terminate());
  worker.on('exit', () => lose(thread));
  worker.unref();
  threads.add(thread);
  for (const root of roots) openAgain(thread, root);
  feed(thread);
}

// As many as fs/promises uses: 0 and what is no number count as 1. Deno has no such threads, and would ask
// the user for permission to read the variable.
function threadCount() {
  const wanted = process.versions.deno ? undefined : process.env.UV_THREADPOOL_SIZE;
  if (wanted === undefined) return USUAL_THREADS;
  return Math.min(Math.max(Number.parseInt(wanted, 10) || 0, 1), MOST_THREADS);
}

// Starts the threads that are missing. Returns the error that prevents it.
function fill() {
  if (threads.size === 0) size = threadCount();
  try {
    while (threads.size < size) start();
    return undefined;
  } catch (error) {
    return error;
  }
}

// A thread has ended early, for example because its heap was full.
function lose(thread) {
  if (!threads.delete(thread)) return;
  const lost = failed(
    'tarvek: the thread ended early; what the call changed is unknown',
    thread.error,
  );
  // A thread that never answered could not start, and its successor could not either.
  const error = thread.hasAnswered ? fill() : thread.error;
  for (const call of [...thread.sent, ...thread.own]) call.settle(lost);
  settleStranded(error);
}

function stop() {
  for (const { worker } of threads) worker.terminate();
  threads.clear();
}

// --- Calls --------------------------------------------------------------------------------------

// Between `enter` and `leave`, a call keeps the process running and its root open.
function enter(root) {
  if (root) ++root.calls;
  if (++pending === 1) alive.ref();
}

function leave(root) {
  if (root && --root.calls === 0) root.drained?.();
  if (--pending > 0) return;
  alive.unref();
  if (roots.size === 0) stop();
}

// Rejects only if the signal aborts the call before a thread has taken it.
function run(call) {
  const { root, signal } = call;
  const error = fill();
  enter(root);
  return new Promise((resolve, reject) => {
    const leaveAnd = (settle) => (outcome) => {
      leave(root);
      settle(outcome);
    };
    call.settle = leaveAnd(resolve);
    call.abort = leaveAnd(reject);
    const place = enqueue(call);
    for (const thread of threads) feed(thread);
    if (!isFilled(place)) return;
    if (signal) watch(place, signal);
    if (isStranded(call)) settleStranded(error);
  });
}

// Opens a root in the thread that is free first, then the same directory in the others.
async function open(call) {
  if (!FILE) throw new Error('tarvek/promises does not work in a bundle: keep tarvek external');
  const { root: above, args } = call;
  const root = { id: ++lastId, calls: 0 };
  enter(above);
  try {
    const { result: identity, ...problem } = await run({ ...call, opens: root });
    if (problem.failure) return problem;
    root.identity = identity;
    root.path = above ? `${above.path}/${args[0].join('/')}` : args[0];
    roots.add(root);
    const others = Array.from(threads).filter(
      (thread) => willServe(thread, above) && !willServe(thread, root),
    );
    const answers = others.map((thread) => runOn(thread, { ...call, opens: root }));
    const refused = (await Promise.all(answers)).find(isRefusal);
    if (refused) await close(root);
    return refused ?? { result: root };
  } finally {
    leave(above);
  }
}

// Waits for the calls that were made before.
async function close(root) {
  enter();
  if (root.calls > 0) {
    await new Promise((resolve) => {
      root.drained = resolve;
    });
  }
  roots.delete(root);
  const having = Array.from(threads).filter((thread) => willServe(thread, root));
  const answers = having.map((thread) => runOn(thread, { name: 'close', root, args: [] }));
  const refused = (await Promise.all(answers)).find(isRefusal);
  leave();
  return refused ?? { result: undefined };
}

module.exports = { run, open, close };
