'use strict';

// How node:fs reaches a directory below a root, and what it does with the names in it.
//
// Node.js has no `openat`. A path of the form /proc/self/fd/<directory>/<name> takes its place: the
// kernel starts in the open directory and takes one name from there. Never join a longer path. The
// kernel would follow a symlink in its middle, out of the root, or wait for a mount that is dead.
//
// The walk alone would not notice that a directory was moved out of the root. So it is held against
// the native module: `openRelative` proves the directory and keeps it open, and the walk must end in
// the same one. While it is open, no other directory can get its inode number.
//
// A root is a record { handle, directory } of one thread. `directory` is a descriptor of the root's
// own directory; undefined if this process has no /proc, or may not use it.

const fs = require('node:fs');
const tarvek = require('../index.js');
const { failure } = require('./failures.js');

const { O_DIRECTORY, O_NOFOLLOW, O_RDONLY } = fs.constants;
const HAS_PROC = hasProc();

// The permission model may forbid the look itself.
function hasProc() {
  try {
    return fs.existsSync('/proc/self/fd');
  } catch {
    return false;
  }
}

const below = (directory, name) => `/proc/self/fd/${directory}/${name}`;
const sameIdentity = (a, b) => a.dev === b.dev && a.ino === b.ino;
const statOf = (descriptor) => fs.fstatSync(descriptor, { bigint: true });

// A file with a second hard link can be an alias of something outside the root.
const isSoleFile = (stat) => stat.isFile() && stat.nlink === 1n;

// The status of the entry itself, if it is a symlink too. Undefined if it is missing.
function look(directory, name) {
  return fs.lstatSync(below(directory, name), { bigint: true, throwIfNoEntry: false });
}

// Returns a descriptor. The caller closes it.
function openDirectory(directory, name) {
  return fs.openSync(below(directory, name), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
}

// Closes `start`, and returns a descriptor that the caller closes.
function walk(start, names) {
  return names.reduce((directory, name) => {
    try {
      return openDirectory(directory, name);
    } finally {
      fs.closeSync(directory);
    }
  }, start);
}

// Returns the descriptor if `check` returns. If it throws, closes the descriptor: the status of a file
// on a remote file system can be out of reach.
function keepIf(descriptor, check) {
  try {
    check(statOf(descriptor));
    return descriptor;
  } catch (error) {
    fs.closeSync(descriptor);
    throw error;
  }
}

// Returns the descriptor, or closes it and throws if it is not the directory of the handle.
function heldAgainst(handle, directory) {
  return keepIf(directory, (stat) => {
    if (!sameIdentity(stat, tarvek.rootIdentity(handle))) throw failure('outside');
  });
}

// A descriptor of the directory of a new root, which the names lead to from that of `above` or from
// "/". Throws if it is not the handle's: another process replaced a directory on the way.
function openRootDirectory(handle, names, above) {
  if (!HAS_PROC || (above && above.directory === undefined)) return undefined;
  try {
    const start = above ? openDirectory(above.directory, '.') : fs.openSync('/', O_DIRECTORY);
    return heldAgainst(handle, walk(start, names));
  } catch (error) {
    // Deno's error has a name of its own. Most functions of a root do without this descriptor.
    if (error.code === 'ERR_ACCESS_DENIED' || error.name === 'NotCapable') return undefined;
    throw error;
  }
}

// The record of a new root. The path is that of openRoot or openRelative. If this throws, the handle
// is closed.
function openRecord(handle, path, above) {
  try {
    const names = Array.isArray(path) ? path : path.split('/').slice(1);
    return { handle, directory: openRootDirectory(handle, names, above) };
  } catch (error) {
    tarvek.close(handle);
    throw error;
  }
}

function closeRecord({ handle, directory }) {
  if (directory !== undefined) fs.closeSync(directory);
  tarvek.close(handle);
}

// With anything but a handle, a synchronous function refuses wrong names and does nothing else.
function refuseNames(segments) {
  try {
    tarvek.exists(undefined, segments);
  } catch (error) {
    if (error.code !== 'HANDLE_CLOSED') throw error;
  }
}

// Proves the directory with these names below the root, or the root for none. Returns a descriptor
// that the caller closes.
function openProven({ handle, directory }, names) {
  if (directory === undefined) throw failure('storage');
  const proof = names.length > 0 ? tarvek.openRelative(handle, names) : undefined;
  try {
    return heldAgainst(proof ?? handle, walk(openDirectory(directory, '.'), names));
  } finally {
    if (proof) tarvek.close(proof);
  }
}

// Calls `use` with the proven parent directory of an entry, which is open until it returns, and with
// the name of the entry in it.
function inParent(root, segments, use) {
  const parent = openProven(root, segments.slice(0, -1));
  try {
    return use(parent, segments.at(-1));
  } finally {
    fs.closeSync(parent);
  }
}

// Unlinks the entry if `isStill` accepts one more look at it. Otherwise, or if it is missing, returns
// false. Between the look and the unlink another entry can take the name. The caller flushes the
// directory.
function unlinkIf(directory, name, isStill) {
  const stat = look(directory, name);
  if (stat === undefined || !isStill(stat)) return false;
  try {
    fs.unlinkSync(below(directory, name));
    return true;
  } catch (error) {
    if (error.code === 'ENOENT') return false;
    throw error;
  }
}

module.exports = {
  below,
  sameIdentity,
  statOf,
  isSoleFile,
  look,
  keepIf,
  openDirectory,
  openRecord,
  closeRecord,
  refuseNames,
  openProven,
  inParent,
  unlinkIf,
};
