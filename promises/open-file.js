'use strict';

// openFile: an open file below a root, with the refusals of `read`. And what `read` does with a
// limit: the size of the open file is known before memory is taken for its content.
//
// The entry must be a regular file with one link before it is opened, so that nothing else is ever
// opened, and the open file must be that entry.

const fs = require('node:fs');
const { open } = require('node:fs/promises');
const { MessageChannel } = require('node:worker_threads');
const tarvek = require('../index.js');
const { errorOf, failure, failureOf } = require('./failures.js');
const { below, sameIdentity, statOf, isSoleFile, look, keepIf, inParent } = require('./walk.js');

const { O_NOFOLLOW, O_NONBLOCK, O_RDONLY } = fs.constants;
const { bun, deno } = process.versions;
const LENDS = (bun ?? deno) !== undefined;

// Returns a descriptor. The caller closes it.
function openVerified(root, segments) {
  // Refuses the arguments, the path and the entry as `read` does.
  if (!tarvek.exists(root.handle, segments)) throw failure('missing');
  return inParent(root, segments, (parent, name) => {
    const named = look(parent, name);
    if (named === undefined) throw failure('missing');
    if (!isSoleFile(named)) throw failure('outside');
    // Without O_NONBLOCK, a FIFO that takes the file's place would block here.
    const file = fs.openSync(below(parent, name), O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
    return keepIf(file, (opened) => {
      // A file that was just removed has no link, and `read` still reads it.
      const isSame = opened.isFile() && opened.nlink < 2n && sameIdentity(opened, named);
      if (!isSame) throw failure('outside');
    });
  });
}

// A FileHandle of the same open file. The kernel takes the file behind the descriptor, whatever its
// path leads to by now.
function toFileHandle(descriptor) {
  return open(`/proc/self/fd/${descriptor}`, O_RDONLY | O_NONBLOCK);
}

// A FileHandle moves to the caller's thread in Node.js only. Elsewhere its descriptor is lent, and the
// caller's side makes the FileHandle: a descriptor can be opened again in every thread, but Deno lets
// only the thread that opened it close it.
async function openFile(root, segments) {
  const descriptor = openVerified(root, segments);
  if (LENDS) return lend(descriptor);
  try {
    return await toFileHandle(descriptor);
  } finally {
    fs.closeSync(descriptor);
  }
}

function lend(descriptor) {
  const { port1, port2 } = new MessageChannel();
  port1.once('message', () => {
    fs.closeSync(descriptor);
    port1.close();
  });
  return { descriptor, port: port2 };
}

const packFile = (file) => [file, [file.port ?? file]];

async function unpackFile(file) {
  const { descriptor, port } = file;
  if (port === undefined) return file;
  try {
    return await toFileHandle(descriptor);
  } catch (error) {
    throw errorOf(failureOf(error));
  } finally {
    port.postMessage(null);
  }
}

// A file that grows meanwhile is read up to its size when it was opened, as `read` does.
function readAtMost(root, segments, maxBytes) {
  const descriptor = openVerified(root, segments);
  try {
    const { size } = statOf(descriptor);
    if (size > maxBytes) throw failure('storage');
    const content = new Uint8Array(Number(size));
    let length = 0;
    for (let count = -1; count !== 0 && length < content.length; length += count) {
      count = fs.readSync(descriptor, content, length, content.length - length, null);
    }
    // Memory of its own, which can move to another thread.
    const whole = length === content.length ? content : content.slice(0, length);
    return Buffer.from(whole.buffer);
  } finally {
    fs.closeSync(descriptor);
  }
}

module.exports = { openFile, readAtMost, packFile, unpackFile };
