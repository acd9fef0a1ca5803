'use strict';

// What can be wrong with an entry, and the code that calls then throw.

const { constants } = require('node:buffer');
const fs = require('node:fs');
const os = require('node:os');
const { isMountPoint } = require('./mounts.js');
const { toBytes } = require('./walk.js');

const TEMPORARY = /^\.tarvek-\d+-\d+-[0-9a-f]{32}$/;
const LARGEST = Math.min(constants.MAX_LENGTH, os.totalmem());
const DAY = 24 * 60 * 60 * 1000;
const ONLY_MOVED = 'can be moved and removed, but not read or written';

const ageInDays = (stat) => Math.max(0, Math.floor((Date.now() - stat.mtimeMs) / DAY));
const inGiB = (size) => (size / 2 ** 30).toFixed(1);
const isUtf8 = (bytes) => Buffer.from(bytes.toString()).equals(bytes);
const hasOnlyAscii = (name) => !/[\x80-\xff]/.test(name);

// The name is resolved once more here, and a symlink that has just taken it is followed. Nothing is
// opened, so only the answer can be wrong. Any other error means that the file has just changed.
function mayNotRead(at) {
  try {
    fs.accessSync(at, fs.constants.R_OK);
    return false;
  } catch ({ code }) {
    return code === 'EACCES';
  }
}

// Each for an entry that is there. The code is that of the calls that the words speak of, or of
// those that read the entry or pass through it.
const OBSTACLES = [
  {
    kind: 'symlink',
    code: 'PATH_OUT_OF_ROOT',
    applies: ({ stat }) => stat.isSymbolicLink(),
    why: () => 'symlink',
  },
  {
    kind: 'hard-link',
    code: 'PATH_OUT_OF_ROOT',
    applies: ({ stat }) => stat.isFile() && stat.nlink > 1,
    why: ({ stat }) => `file with ${stat.nlink} hard links`,
  },
  {
    kind: 'fifo',
    code: 'PATH_OUT_OF_ROOT',
    applies: ({ stat }) => stat.isFIFO(),
    why: () => `FIFO, ${ONLY_MOVED}`,
  },
  {
    kind: 'socket',
    code: 'PATH_OUT_OF_ROOT',
    applies: ({ stat }) => stat.isSocket(),
    why: () => `socket, ${ONLY_MOVED}`,
  },
  {
    kind: 'device',
    code: 'PATH_OUT_OF_ROOT',
    applies: ({ stat }) => stat.isCharacterDevice() || stat.isBlockDevice(),
    why: () => `device, ${ONLY_MOVED}`,
  },
  {
    kind: 'unreadable',
    code: 'FILESYSTEM_FAILURE',
    applies: ({ at, stat }) => stat.isFile() && mayNotRead(at),
    why: () => 'file that this process may not read',
  },
  {
    kind: 'too-large',
    code: 'FILESYSTEM_FAILURE',
    applies: ({ stat }) => stat.isFile() && stat.size > LARGEST,
    why: ({ stat }) => `file of ${inGiB(stat.size)} GiB, too large to be read into memory`,
  },
  {
    kind: 'bad-name',
    code: 'PATH_OUT_OF_ROOT',
    applies: ({ name }) => name.includes('\\'),
    why: () => 'name with a backslash, cannot be passed to a call',
  },
  {
    kind: 'not-utf8',
    code: 'NOT_FOUND',
    applies: ({ name }) => !hasOnlyAscii(name) && !isUtf8(toBytes(name)),
    why: () => 'name that is not UTF-8, cannot be passed to a call',
  },
  {
    kind: 'leftover',
    code: null,
    applies: ({ name, stat }) => stat.isFile() && TEMPORARY.test(name),
    why: ({ stat }) => `temporary file of a write, running or crashed, ${ageInDays(stat)} days old`,
  },
  {
    kind: 'mount-point',
    code: 'FILESYSTEM_FAILURE',
    applies: ({ mounts }) => isMountPoint(mounts),
    why: () => 'mount point, cannot be removed or replaced; nothing can be moved across it',
  },
];

const MISSING = { kind: 'missing', code: 'NOT_FOUND', why: 'missing' };
const NO_DIRECTORY = { kind: 'not-a-directory', code: 'PATH_OUT_OF_ROOT', why: 'not a directory' };
const REPLACED = { kind: 'changed', code: 'PATH_OUT_OF_ROOT', why: 'replaced during the check' };

function fromError({ stat, error }) {
  if (error.code === 'ENOENT') return MISSING;
  // It was a directory, and was something else when it was opened.
  if (error.code === 'ENOTDIR' || error.code === 'ELOOP') return REPLACED;
  const why =
    stat && error.code === 'EACCES'
      ? 'directory that this process may not read and search'
      : `cannot be read: ${error.code}`;
  return { kind: 'unreadable', code: 'FILESYSTEM_FAILURE', why };
}

// What is wrong with an entry of a walk. `isPassed` is true if the way goes on below the entry.
function* obstaclesAt(entry, isPassed) {
  const { stat, error } = entry;
  if (stat && isPassed && !stat.isDirectory() && !stat.isSymbolicLink()) {
    yield NO_DIRECTORY;
    return;
  }
  for (const { kind, code, applies, why } of stat ? OBSTACLES : []) {
    if (applies(entry)) yield { kind, code, why: why(entry) };
  }
  if (error) yield fromError(entry);
}

module.exports = { isUtf8, obstaclesAt };
