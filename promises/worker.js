'use strict';

// The side of a thread: its handles, and one call after the other.
//
// The pool sends a message for a call, { name, root, args, opens }, and the next one after the answer:
//
//   name, args   a function of `functions`, and its arguments without the root
//   root         the id of the root that the call is made on
//   opens        { id, identity } if the call opens a root: the id it gets, and its identity if another
//                thread has opened it already
//
// The answer is { result }, or { failure } with the code and message of an error. A function may send
// { progress } before with `tell` of messages.js.

const { parentPort } = require('node:worker_threads');
const tarvek = require('../index.js');
const { failureOf, pack, release } = require('./messages.js');

const TRIES = 3;

// What this thread has of each open root, by its id: { handle }.
const roots = new Map();

const onHandle =
  (name) =>
  ({ handle }, ...args) =>
    tarvek[name](handle, ...args);

// What can be called, each as (root, ...args) with an entry of `roots`. A function may return a promise.
// Those that open return a handle.
const functions = {
  open: (_, path) => tarvek.open(path),
  openRoot: (_, path) => tarvek.openRoot(path),
  openRelative: onHandle('openRelative'),
  rootIdentity: onHandle('rootIdentity'),
  exists: onHandle('exists'),
  list: onHandle('list'),
  capture: onHandle('capture'),
  snapshot: onHandle('snapshot'),
  read: onHandle('read'),
  write: onHandle('write'),
  create: onHandle('create'),
  append: onHandle('append'),
  ensureDirectory: onHandle('ensureDirectory'),
  ensureRelativeSymlink: onHandle('ensureRelativeSymlink'),
  remove: onHandle('remove'),
  removeIfEquals: onHandle('removeIfEquals'),
  move: onHandle('move'),
  publishVerified: onHandle('publishVerified'),
};

function close(id) {
  const root = roots.get(id);
  roots.delete(id);
  if (root) tarvek.close(root.handle);
}

// The first thread that opens a root decides which directory it is.
function openFirst(id, open) {
  const handle = open();
  roots.set(id, { handle });
  return tarvek.rootIdentity(handle);
}

// The others must find the same directory. A process that swaps directories can make single attempts
// fail or lead elsewhere.
function openSame({ id, identity: { dev, ino } }, open) {
  let failure;
  for (let attempt = 0; attempt < TRIES; ++attempt) {
    try {
      const handle = open();
      const found = tarvek.rootIdentity(handle);
      if (found.dev === dev && found.ino === ino) {
        roots.set(id, { handle });
        return undefined;
      }
      tarvek.close(handle);
    } catch (error) {
      failure = error;
    }
  }
  if (failure?.code === 'FILESYSTEM_FAILURE') throw failure;
  // Refuses with PATH_OUT_OF_ROOT.
  return tarvek.openRoot('');
}

function perform({ name, root, args, opens }) {
  if (name === 'close') return close(root);
  const call = () => functions[name](roots.get(root), ...args);
  if (!opens) return call();
  return opens.identity ? openSame(opens, call) : openFirst(opens.id, call);
}

async function answer(message) {
  try {
    const [result, moved] = pack(message.name, await perform(message));
    parentPort.postMessage({ result }, moved);
  } catch (error) {
    parentPort.postMessage({ failure: failureOf(error) });
  }
  release(message.args);
}

// A call that was sent ahead waits for the one before it.
let last;

parentPort.on('message', (message) => {
  last = Promise.resolve(last).then(() => answer(message));
});
