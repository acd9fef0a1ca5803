'use strict';

// The memory in which the bytes of calls go to the threads.
//
// The system clears new memory page by page when it is first used, which takes longer than the copy.
// So the threads send the memory back with their answers, and later copies use it again. Memory that no
// copy has used for a second goes back to the system.

// Less than that is copied with its message, which takes less time than moving it.
const MOVED_FROM = 16 * 1024;
// More than that is for one copy only. The sizes between are powers of two, so that memory fits many
// calls. Pages behind the end of a copy are never used, and so take no memory.
const MOST = 32 * 2 ** 20;
const MOST_KEPT = 256 * 2 ** 20;
const KEPT_FOR = 1000;

// By size, each as { memory, since } in the order of their return.
const kept = new Map();
let keptBytes = 0;
let isSweeping = false;

const nowhere = new MessageChannel().port1;
nowhere.close();

// Gives memory back to the system at once, not at the next collection. A closed port drops what it is
// given.
const free = (memory) => nowhere.postMessage(null, [memory]);

function sizeFor(length) {
  return length < MOVED_FROM || length > MOST ? length : 2 ** Math.ceil(Math.log2(length));
}

// Returns an ArrayBuffer of at least this length, with any content. Throws if there is no memory.
function take(length) {
  const size = sizeFor(length);
  const found = kept.get(size)?.pop();
  // Memory of its own, which can move to another thread.
  if (!found) return Buffer.allocUnsafeSlow(size).buffer;
  keptBytes -= size;
  return found.memory;
}

function keep(memory) {
  const size = memory.byteLength;
  if (size > MOST || keptBytes + size > MOST_KEPT) {
    free(memory);
    return;
  }
  if (!kept.has(size)) kept.set(size, []);
  kept.get(size).push({ memory, since: performance.now() });
  keptBytes += size;
  if (!isSweeping) sweepLater();
}

// Does not keep the process running.
function sweepLater() {
  isSweeping = keptBytes > 0;
  if (isSweeping) setTimeout(freeUnused, KEPT_FOR).unref();
}

function freeUnused() {
  const limit = performance.now() - KEPT_FOR;
  for (const entries of kept.values()) {
    const used = entries.findIndex(({ since }) => since > limit);
    const unused = entries.splice(0, used < 0 ? entries.length : used);
    for (const { memory } of unused) {
      keptBytes -= memory.byteLength;
      free(memory);
    }
  }
  sweepLater();
}

module.exports = { MOVED_FROM, take, keep };
