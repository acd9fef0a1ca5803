'use strict';

// The memory in which the bytes of calls go to the threads.
//
// The system clears new memory page by page when it is first used, which takes longer than the copy.
// So the threads send the memory back with their answers, and later copies use it again. What no copy
// has used for a second is freed, a little at a time: freeing much at once would block the caller.

const { performance } = require('node:perf_hooks');
const { setTimeout } = require('node:timers');
const { MessageChannel } = require('node:worker_threads');

const MIB = 2 ** 20;
// Less than that is copied with its message, which takes less time than moving it.
const MOVED_FROM = 16 * 1024;
// Memory of more than that is for one copy only. The sizes between are powers of two, so that memory fits
// many calls. Of new memory, the pages that a copy does not reach take no room.
const LARGEST_KEPT = 32 * MIB;
const MOST_KEPT = 256 * MIB;
const KEPT_FOR = 1000;
const SWEEP_EVERY = 250;
const FREED_AT_ONCE = 16 * MIB;

// By size, each as { memory, since } in the order of their return.
const kept = new Map();
let keptBytes = 0;

// Made here and refreshed later. A timer made by a call would hold the AsyncLocalStorage of the request.
const sweep = setTimeout(freeUnused, SWEEP_EVERY).unref();

const nowhere = new MessageChannel().port1;
nowhere.close();

// Frees memory without waiting for a collection, except in Deno. A closed port drops what it is given.
const free = (memory) => nowhere.postMessage(null, [memory]);

const isReusable = (memory) => memory.byteLength <= LARGEST_KEPT;

function sizeFor(length) {
  return length < MOVED_FROM || length > LARGEST_KEPT ? length : 2 ** Math.ceil(Math.log2(length));
}

// Memory of its own, which can move to another thread.
const allocate = (size) => Buffer.allocUnsafeSlow(size).buffer;

// Returns an ArrayBuffer of at least this length, with any content. Throws if there is no memory.
function take(length) {
  const size = sizeFor(length);
  const found = kept.get(size)?.pop();
  if (found) {
    keptBytes -= size;
    return found.memory;
  }
  try {
    return allocate(size);
  } catch {
    freeUntil(Infinity, Infinity);
    return allocate(size);
  }
}

// Takes reusable memory that a call no longer needs.
function keep(memory) {
  const size = memory.byteLength;
  if (keptBytes + size > MOST_KEPT) {
    free(memory);
    return;
  }
  if (!kept.has(size)) kept.set(size, []);
  kept.get(size).push({ memory, since: performance.now() });
  if (keptBytes === 0) sweep.refresh();
  keptBytes += size;
}

// Frees memory that was last used at `latest` or before, until that is `most` bytes. The newest goes first:
// the C library returns memory to the system from the end of its heap.
function freeUntil(latest, most) {
  let freed = 0;
  for (const [size, entries] of kept) {
    let last = entries.findLastIndex(({ since }) => since <= latest);
    for (; last >= 0 && freed < most; --last) {
      const [{ memory }] = entries.splice(last, 1);
      freed += size;
      keptBytes -= size;
      free(memory);
    }
  }
}

function freeUnused() {
  freeUntil(performance.now() - KEPT_FOR, FREED_AT_ONCE);
  if (keptBytes > 0) sweep.refresh();
}

module.exports = { MOVED_FROM, take, keep, free, isReusable };
