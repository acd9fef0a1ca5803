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
// The answer is { result, memory }, or { failure, memory } with the code and message of an error. `memory` is
// that of the arguments, for later calls. A function may send { progress } before, by `tell`.

const { parentPort } = require('node:worker_threads');
const tarvek = require('../index.js');
const { failureOf } = require('./failures.js');
const { removeLeftovers } = require('./leftovers.js');
const { free, isReusable } = require('./memory.js');
const { movedWith, pack, restoreArgument } = require('./messages.js');
const { openFile, readAtMost } = require('./open-file.js');
const { finishPublish, publishFile } = require('./publish.js');
const { captureWithProgress } = require('./progress.js');
const { closeRecord, openRecord } = require('./walk.js');

const TRIES = 3;

// What this thread has of each open root, by its id: a record of walk.js.
const roots = new Map();

const tell = (progress) => parentPort.postMessage({ progress });

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
  capture: ({ handle }, paths, tells) =>
    tells ? captureWithProgress(handle, paths, tell) : tarvek.capture(handle, paths),
  snapshot: onHandle('snapshot'),
  read: (root, segments, maxBytes) =>
    maxBytes === undefined
      ? tarvek.read(root.handle, segments)
      : readAtMost(root, segments, maxBytes),
  write: onHandle('write'),
  create: onHandle('create'),
  append: onHandle('append'),
  ensureDirectory: onHandle('ensureDirectory'),
  ensureRelativeSymlink: onHandle('ensureRelativeSymlink'),
  remove: onHandle('remove'),
  removeIfEquals: onHandle('removeIfEquals'),
  move: onHandle('move'),
  publishVerified: onHandle('publishVerified'),
  openFile,
  publishFile,
  finishPublish,
  removeLeftovers,
};

function close(id) {
  const root = roots.get(id);
  roots.delete(id);
  if (root) closeRecord(root);
}

// The first thread that opens a root decides which directory it is.
function openFirst(id, open) {
  const root = open();
  roots.set(id, root);
  return tarvek.rootIdentity(root.handle);
}

// The others must find the same directory. A process that swaps directories can make single attempts
// fail or lead elsewhere.
function openSame({ id, identity: { dev, ino } }, open) {
  let failure;
  for (let attempt = 0; attempt < TRIES; ++attempt) {
    try {
      const root = open();
      const found = tarvek.rootIdentity(root.handle);
      if (found.dev === dev && found.ino === ino) {
        roots.set(id, root);
        return undefined;
      }
      closeRecord(root);
    } catch (error) {
      failure = failureOf(error);
    }
  }
  if (failure?.code === 'FILESYSTEM_FAILURE') throw failure;
  // Refuses with PATH_OUT_OF_ROOT.
  return tarvek.openRoot('');
}

function perform({ name, root, args, opens }) {
  if (name === 'close') return close(root);
  const record = roots.get(root);
  const call = () => functions[name](record, ...args.map(restoreArgument));
  if (!opens) return call();
  const open = () => openRecord(call(), args[0], record);
  return opens.identity ? openSame(opens, open) : openFirst(opens.id, open);
}

// Returns the memory of the arguments that later calls can use again. Frees the rest: a thread creates little
// garbage, so its collector would come late.
function reusableOf(args) {
  const memory = movedWith(args);
  const reusable = memory.filter(isReusable);
  for (const large of memory.filter((one) => !isReusable(one))) free(large);
  return reusable;
}

async function answer(message) {
  try {
    const [result, moved] = pack(message.name, await perform(message));
    const memory = reusableOf(message.args);
    parentPort.postMessage({ result, memory }, [...moved, ...memory]);
  } catch (error) {
    // If it was the message that failed, it has moved nothing.
    const memory = reusableOf(message.args);
    parentPort.postMessage({ failure: failureOf(error), memory }, memory);
  }
}

// A call that was sent ahead waits for the one before it.
let last;

parentPort.on('message', (message) => {
  last = Promise.resolve(last).then(() => answer(message));
});
