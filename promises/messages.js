'use strict';

// What crosses between the caller's thread and the pool's threads.
//
// Arguments are reduced, not cloned: what a synchronous function can accept stays what it is, and
// everything else becomes null, which it refuses as it would refuse the original. Bytes are copied when
// the call is made, so the caller may use its memory again at once.
//
// The bytes of a result belong to the receiver. From `MOVED_FROM` bytes on, memory moves to the other
// thread. Less than that is copied with the message, which takes less time. The small files of one
// result share blocks: 10,000 pieces of memory would take the receiver longer to unpack.

const { isProxy, isTypedArray } = require('node:util').types;
const { failure } = require('./failures.js');
const { MOVED_FROM, take } = require('./memory.js');
const { packFile, unpackFile } = require('./open-file.js');

const BLOCK = 64 * 1024;
const TYPED_ARRAY = Object.getPrototypeOf(Uint8Array.prototype);

// --- Arguments ----------------------------------------------------------------------------------

// The bytes of a view, even if its class defines these properties in another way.
function bytesOf(view) {
  const prototype = isTypedArray(view) ? TYPED_ARRAY : DataView.prototype;
  const get = (name) => Reflect.get(prototype, name, view);
  try {
    return new Uint8Array(get('buffer'), get('byteOffset'), get('byteLength'));
  } catch {
    // The memory of the view is gone.
    return new Uint8Array(0);
  }
}

// Bytes travel as { memory, length } with an ArrayBuffer that is shared with nothing. Deno clones a typed
// array one byte after the other, even if its memory moves, which takes more than a second for 1 MiB.
function copyOf(view) {
  const bytes = bytesOf(view);
  const { length } = bytes;
  try {
    const memory = take(length);
    new Uint8Array(memory).set(bytes);
    return { memory, length };
  } catch {
    // There is no memory for the copy.
    throw failure('storage');
  }
}

// Reads each element once, up to the first that cannot be part of a path: an array can claim a length
// of 2^32 - 1.
function reduceArray(array, reduceElement) {
  const reduced = [];
  const { length } = array;
  for (let index = 0; index < length && reduced.at(-1) !== null; ++index) {
    reduced.push(reduceElement(array[index]));
  }
  return reduced;
}

// The native module refuses a Proxy of an array.
const isArray = (value) => Array.isArray(value) && !isProxy(value);

const reduceName = (value) => (typeof value === 'string' ? value : null);
const reducePath = (value) => (isArray(value) ? reduceArray(value, reduceName) : reduceName(value));

function reduceArgument(value) {
  if (typeof value === 'string' || typeof value === 'number') return value;
  if (isArray(value)) return reduceArray(value, reducePath);
  return ArrayBuffer.isView(value) ? copyOf(value) : null;
}

// The arguments as the synchronous functions take them. Memory can be longer than its bytes, with bytes of
// another call behind them.
const restoreArgument = (value) =>
  value?.memory ? new Uint8Array(value.memory, 0, value.length) : value;

// The memory that moves with these arguments, to a thread and back.
const movedWith = (args) =>
  args.filter((value) => value?.memory?.byteLength >= MOVED_FROM).map(({ memory }) => memory);

// --- Results ------------------------------------------------------------------------------------

// Puts bodies into pieces of memory: each large one into its own, the small ones one after the other
// into blocks.
function packBodies(bodies) {
  const lengths = Float64Array.from(bodies, ({ length }) => length);
  let left = lengths.reduce((sum, length) => (length < MOVED_FROM ? sum + length : sum), 0);
  const pieces = [];
  let block = new Uint8Array(0);
  let used = 0;
  for (const body of bodies) {
    if (body.length >= MOVED_FROM) {
      pieces.push(body.buffer);
      continue;
    }
    if (used + body.length > block.length) {
      block = new Uint8Array(Math.min(left, BLOCK));
      pieces.push(block.buffer);
      used = 0;
    }
    block.set(body, used);
    used += body.length;
    left -= body.length;
  }
  return { lengths, pieces };
}

// Returns a function that returns the bodies, in their order, by the rule of `packBodies`.
function bodiesIn({ lengths, pieces }) {
  let block = new ArrayBuffer(0);
  let used = 0;
  let piece = 0;
  let body = 0;
  return () => {
    const length = lengths[body++];
    if (length >= MOVED_FROM) return Buffer.from(pieces[piece++]);
    if (used + length > block.byteLength) {
      block = pieces[piece++];
      used = 0;
    }
    used += length;
    return Buffer.from(block, used - length, length);
  };
}

const isFile = ({ type }) => type === 'file';

// The results that are not plain data. `pack` returns what is sent in their place and the memory that
// moves with it, `unpack` makes the result again.
const RESULTS = {
  openFile: { pack: packFile, unpack: unpackFile },
  read: {
    pack: ({ buffer }) => [buffer, buffer.byteLength < MOVED_FROM ? [] : [buffer]],
    unpack: (memory) => Buffer.from(memory),
  },
  capture: {
    pack(records) {
      const bodies = packBodies(records.filter(isFile).map(({ body }) => body));
      const paths = records.map(({ path }) => path);
      const modes = Uint16Array.from(records, ({ mode }) => mode);
      const files = Uint8Array.from(records, isFile);
      return [{ paths, modes, files, ...bodies }, bodies.pieces];
    },
    unpack({ paths, modes, files, ...bodies }) {
      const nextBody = bodiesIn(bodies);
      return paths.map((path, index) =>
        files[index]
          ? { path, type: 'file', mode: modes[index], body: nextBody() }
          : { path, type: 'directory', mode: modes[index] },
      );
    },
  },
  snapshot: {
    pack(files) {
      const bodies = packBodies(Object.values(files));
      return [{ paths: Object.keys(files), ...bodies }, bodies.pieces];
    },
    unpack({ paths, ...bodies }) {
      const nextBody = bodiesIn(bodies);
      const files = Object.create(null);
      for (const path of paths) files[path] = nextBody();
      return files;
    },
  },
};

const pack = (name, result) => RESULTS[name]?.pack(result) ?? [result, []];
const unpack = (name, packed) => (RESULTS[name] ? RESULTS[name].unpack(packed) : packed);

module.exports = { reduceArgument, restoreArgument, movedWith, pack, unpack };
