'use strict';

// The functions of tarvek as promises: the same names, arguments, results, codes and messages. Threads
// run the synchronous functions (pool.js).
//
// Each takes one more argument, an object of options. Every function knows the option `signal`.

const { AsyncResource } = require('node:async_hooks');
const tarvek = require('../index.js');
const { errorOf, failure } = require('./failures.js');
const { reduceArgument, unpack } = require('./messages.js');
const pool = require('./pool.js');

// The records of pool.js behind the roots. A root has no properties of its own, so only these functions
// can use it.
const records = new WeakMap();

// Closes the roots that the program has forgotten.
const forgotten = new FinalizationRegistry(closeRecord);

class Root {}

// The first versions of Node.js 18 do not have the symbol.
if (Symbol.asyncDispose) {
  Object.defineProperty(Root.prototype, Symbol.asyncDispose, {
    value: function dispose() {
      return close(this);
    },
  });
}

function rootOf(record) {
  const root = new Root();
  records.set(root, record);
  forgotten.register(root, record);
  return root;
}

function closeRecord(record) {
  record.closing ??= pool.close(record);
  return record.closing;
}

const isFunction = (value) => typeof value === 'function';
const isAmount = (value) => Number.isFinite(value) && value >= 0;
const isSignal = (value) =>
  isFunction(value?.addEventListener) && isFunction(value.removeEventListener);
const orLeftOut = (isValid) => (value) => value === undefined || isValid(value);

// The values that each option accepts.
const OPTIONS = {
  signal: orLeftOut(isSignal),
  maxBytes: orLeftOut(isAmount),
  onProgress: orLeftOut(isFunction),
  olderThan: isAmount,
  sha256: (value) => typeof value === 'string' && /^[0-9a-f]{64}$/i.test(value),
};

// Reads each option once.
function readOptions(given = {}, known) {
  const isObject = typeof given === 'object' && given !== null;
  if (isObject && Object.keys(given).every((name) => known.includes(name))) {
    const options = Object.fromEntries(known.map((name) => [name, given[name]]));
    if (known.every((name) => OPTIONS[name](options[name]))) return options;
  }
  throw failure('storage');
}

// As that of a closed FileHandle if it is none: the native module cuts numbers to 32 bits.
function descriptorOf(file) {
  const descriptor = file?.fd;
  return Number.isInteger(descriptor) && descriptor >= 0 ? descriptor : -1;
}

// Calls back in the context of the call. What the callback throws waits until the call has ended.
function watch(onProgress) {
  const watching = { thrown: undefined };
  watching.report = AsyncResource.bind((progress) => {
    if (watching.thrown) return;
    try {
      onProgress(progress);
    } catch (error) {
      watching.thrown = { error };
    }
  });
  return watching;
}

// Makes the function `name`, which has `count` arguments before its options.
//   takesRoot   its first argument is a root
//   takesFile   the argument after it is an open file
//   like        the synchronous function that refuses for it
//   options     the names of its options besides `signal`, whose values follow its arguments
//   send        sends the call to the threads and resolves to their answer
//   receive     makes the result from what the answer contains
function promised(name, count, own = {}) {
  const { takesRoot = true, takesFile = false, like = name, options = [] } = own;
  const { send = pool.run, receive = (result) => unpack(name, result) } = own;
  const known = ['signal', ...options];

  // Everything before the await happens when the call is made: the arguments are read once, and their
  // bytes are copied.
  async function run(...args) {
    const given = args.length === count + 1 ? args.pop() : undefined;
    const { signal, ...values } = readOptions(given, known);
    if (signal?.aborted) throw signal.reason;
    // A root must not be forgotten while a call uses it, nor an open file closed.
    const [owner, file] = takesRoot ? args : [];
    const root = records.get(owner);
    const isOpen = root && (!root.closing || name === 'close');
    if (args.length !== count || (takesRoot && !isOpen)) {
      // The synchronous function fails before it touches the disk, in its own words: it never gets a
      // handle here.
      return tarvek[like](...args.fill(undefined, 0, takesRoot ? 1 : 0));
    }
    const reduced = args.slice(takesRoot ? 1 : 0).map(reduceArgument);
    if (takesFile) reduced[0] = descriptorOf(file);
    // A callback cannot leave this thread. The other one learns that there is one.
    reduced.push(...Object.values(values).map((value) => isFunction(value) || value));
    const watching = values.onProgress && watch(values.onProgress);
    const call = { name, root, args: reduced, signal, onProgress: watching?.report, owner, file };
    const answer = await send(call);
    if (watching?.thrown) throw watching.thrown.error;
    if (answer.failure) throw errorOf(answer.failure, answer.cause);
    return receive(answer.result);
  }
  return Object.defineProperty(run, 'name', { value: name });
}

const opening = { send: pool.open, receive: rootOf };

const open = promised('open', 1, { takesRoot: false, ...opening });
const openRoot = promised('openRoot', 1, { takesRoot: false, ...opening });
const openRelative = promised('openRelative', 2, opening);
const close = promised('close', 1, { send: ({ root }) => closeRecord(root) });
const rootIdentity = promised('rootIdentity', 1);
const exists = promised('exists', 2);
const list = promised('list', 2);
const capture = promised('capture', 2, { options: ['onProgress'] });
const snapshot = promised('snapshot', 2);
const read = promised('read', 2, { options: ['maxBytes'] });
const write = promised('write', 3);
const create = promised('create', 3);
const append = promised('append', 5);
const ensureDirectory = promised('ensureDirectory', 2);
const ensureRelativeSymlink = promised('ensureRelativeSymlink', 3);
const remove = promised('remove', 2);
const removeIfEquals = promised('removeIfEquals', 3);
const move = promised('move', 3);
const publishVerified = promised('publishVerified', 5);
const openFile = promised('openFile', 2, { like: 'read' });
const publishFile = promised('publishFile', 4, {
  takesFile: true,
  like: 'publishVerified',
  options: ['sha256'],
});
const finishPublish = promised('finishPublish', 3, { like: 'move' });
const removeLeftovers = promised('removeLeftovers', 2, { like: 'list', options: ['olderThan'] });

// Written out: Node.js and bundlers read the names that `import` offers from this text.
module.exports = {
  open,
  openRoot,
  openRelative,
  close,
  rootIdentity,
  exists,
  list,
  capture,
  snapshot,
  read,
  write,
  create,
  append,
  ensureDirectory,
  ensureRelativeSymlink,
  remove,
  removeIfEquals,
  move,
  publishVerified,
  openFile,
  publishFile,
  finishPublish,
  removeLeftovers,
};
