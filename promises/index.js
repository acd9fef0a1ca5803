'use strict';

// The functions of tarvek as promises: the same names, arguments, results, codes and messages. Threads
// run the synchronous functions (pool.js).
//
// Each takes one more argument, an object of options. Every function knows the option `signal`.

const tarvek = require('../index.js');
const { failureOf, reduceArgument, unpack } = require('./messages.js');
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

function errorOf({ failure: { code, message }, cause }) {
  const error = new Error(message, cause && { cause });
  return Object.assign(error, { code });
}

const isSignal = (value) => typeof value?.addEventListener === 'function';

// Reads each option once.
function readOptions(given, known) {
  const isObject = typeof given === 'object' && given !== null;
  if (isObject && Object.keys(given).every((name) => known.includes(name))) {
    const options = Object.fromEntries(known.map((name) => [name, given[name]]));
    if (options.signal === undefined || isSignal(options.signal)) return options;
  }
  throw errorOf({ failure: failureOf() });
}

// Makes the function `name`, which has `count` arguments before its options.
//   takesRoot   its first argument is a root
//   options     the names of its options
//   send        sends the call to the threads and resolves to their answer
//   receive     makes the result from what the answer contains
function promised(name, count, { takesRoot = true, options = ['signal'], ...own } = {}) {
  const { send = pool.run, receive = (result) => unpack(name, result) } = own;

  // Everything before the await happens when the call is made: the arguments are read once, and their
  // bytes are copied.
  async function run(...args) {
    const last = args.length === count + 1 ? args.pop() : undefined;
    const { signal } = last === undefined ? {} : readOptions(last, options);
    if (signal?.aborted) throw signal.reason;
    const owner = takesRoot ? args[0] : undefined;
    const root = records.get(owner);
    const isOpen = root && (!root.closing || name === 'close');
    if (args.length !== count || (takesRoot && !isOpen)) {
      // The synchronous function fails before it touches the disk, in its own words: it never gets a
      // handle here.
      return tarvek[name](...args.fill(undefined, 0, takesRoot ? 1 : 0));
    }
    const reduced = args.slice(takesRoot ? 1 : 0).map(reduceArgument);
    // The owner is in the call so that a root is not forgotten while it is used.
    const answer = await send({ name, root, args: reduced, signal, owner });
    if (answer.failure) throw errorOf(answer);
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
const capture = promised('capture', 2);
const snapshot = promised('snapshot', 2);
const read = promised('read', 2);
const write = promised('write', 3);
const create = promised('create', 3);
const append = promised('append', 5);
const ensureDirectory = promised('ensureDirectory', 2);
const ensureRelativeSymlink = promised('ensureRelativeSymlink', 3);
const remove = promised('remove', 2);
const removeIfEquals = promised('removeIfEquals', 3);
const move = promised('move', 3);
const publishVerified = promised('publishVerified', 5);

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
};
