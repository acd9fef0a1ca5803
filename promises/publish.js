'use strict';

// publishFile: gives a candidate its final name if its content has the expected hash, as
// publishVerified does for content that fits into memory. finishPublish: finishes a publication that
// a crash stopped.
//
// In between the file has two names. The new one is flushed before the old one is removed: on btrfs
// the flush of a directory brings only that directory's changes to the disk, so in the other order a
// power cut could lose both names.

const { createHash } = require('node:crypto');
const fs = require('node:fs');
const tarvek = require('../index.js');
const { failure, failureOf } = require('./failures.js');
const { below, sameIdentity, statOf, isSoleFile, look } = require('./walk.js');
const { inParent, openProven, refuseNames, unlinkIf } = require('./walk.js');

const { O_NONBLOCK, O_RDONLY } = fs.constants;
const PIECE = 256 * 1024;
// The access mode, and O_PATH: such a descriptor reads nothing.
const ACCESS = 0o3 | 0o10000000;

// A change of the content or of the names of a file changes one of these.
const STABLE = ['dev', 'ino', 'mode', 'nlink', 'size', 'mtimeNs', 'ctimeNs'];
const sameMetadata = (a, b) => STABLE.every((field) => a[field] === b[field]);

// publishVerified refuses wrong arguments and both paths, and creates the destination's parent
// directories. It never publishes here: the descriptor of a directory is not that of a candidate.
function prepareBoth({ handle, directory }, descriptor, candidate, destination) {
  if (directory === undefined) throw failure('storage');
  const notCandidate = descriptor < 0 ? descriptor : directory;
  try {
    tarvek.publishVerified(handle, notCandidate, candidate, destination, Buffer.alloc(0));
  } catch (error) {
    if (error.code !== 'CANDIDATE_CHANGED') throw error;
  }
}

// A writable descriptor could change the bytes after they were hashed.
function isReadOnly(descriptor) {
  const information = fs.readFileSync(`/proc/self/fdinfo/${descriptor}`, 'latin1');
  const [, flags] = /^flags:\s*(\d+)$/m.exec(information);
  return (Number.parseInt(flags, 8) & ACCESS) === O_RDONLY;
}

// Ends early if the file grows, so that no writer can keep it busy.
function hashOf(file, size) {
  const hash = createHash('sha256');
  const piece = Buffer.alloc(PIECE);
  let position = 0;
  for (let count = -1; count !== 0 && position <= size; position += count) {
    count = fs.readSync(file, piece, 0, PIECE, position);
    hash.update(piece.subarray(0, count));
  }
  return hash.digest('hex');
}

function hasContent(file, before, sha256) {
  try {
    return hashOf(file, before.size) === sha256.toLowerCase() && sameMetadata(before, statOf(file));
  } catch {
    // What cannot be read cannot be verified.
    return false;
  }
}

// Returns the status of the file if it is a candidate with the expected content. The file is opened
// again by the name of the caller's descriptor: in Deno, a descriptor serves only its own thread.
//
// The flush comes first. Pages that another process has mapped are protected again by it, so that a
// later write to them changes the times of the file. And nothing slow comes between the last look at
// the file and the link.
function verify(descriptor, sha256) {
  const name = `/proc/self/fd/${descriptor}`;
  const before = fs.statSync(name, { bigint: true, throwIfNoEntry: false });
  if (!before || !isSoleFile(before) || !isReadOnly(descriptor)) throw failure('candidate');
  const file = fs.openSync(name, O_RDONLY | O_NONBLOCK);
  try {
    fs.fsyncSync(file);
    if (!hasContent(file, before, sha256)) throw failure('candidate');
    return before;
  } finally {
    fs.closeSync(file);
  }
}

// Never replaces an entry.
function link(source, from, target, to, file) {
  try {
    fs.linkSync(below(source, from), below(target, to));
  } catch (error) {
    throw error.code === 'EEXIST' ? failure('exists') : error;
  }
  const named = look(target, to);
  if (named?.isFile() && sameIdentity(named, file)) return;
  // Required: the entry is removed even if another process put it there. What the new name leads to
  // was not verified and must not stay published.
  unlinkIf(target, to, () => true);
  throw failure('storage');
}

// Removes the new name again, unless it has become the only one. The caller gets the error that led
// here; a name that stays is one for finishPublish.
function takeBack(source, from, target, to, isCandidate) {
  try {
    const named = look(source, from);
    if (named !== undefined && isCandidate(named)) unlinkIf(target, to, isCandidate);
  } catch {}
}

function publishFile(root, descriptor, candidate, destination, sha256) {
  prepareBoth(root, descriptor, candidate, destination);
  const file = verify(descriptor, sha256);
  const isCandidate = (stat) => sameIdentity(stat, file);
  inParent(root, candidate, (source, from) => {
    inParent(root, destination, (target, to) => {
      const named = look(source, from);
      if (named === undefined || !sameMetadata(named, file)) throw failure('candidate');
      link(source, from, target, to, file);
      try {
        fs.fsyncSync(target);
        // If another process took the old name away, the file is published all the same.
        unlinkIf(source, from, isCandidate);
      } catch (error) {
        takeBack(source, from, target, to, isCandidate);
        throw error;
      }
      fs.fsyncSync(source);
    });
  });
}

// As inParent. `use` gets undefined for a parent directory that is missing, and so is the entry.
function inParentIfThere(root, segments, use) {
  refuseNames(segments);
  let parent;
  try {
    parent = openProven(root, segments.slice(0, -1));
  } catch (error) {
    if (failureOf(error).code !== 'NOT_FOUND') throw error;
  }
  try {
    return use(parent, segments.at(-1));
  } finally {
    if (parent !== undefined) fs.closeSync(parent);
  }
}

const lookIfThere = (directory, name) =>
  directory === undefined ? undefined : look(directory, name);

// Names that differ as strings can be the same bytes on the disk: a lone surrogate becomes U+FFFD.
function isOneEntry(source, from, target, to) {
  if (source === undefined || target === undefined) return false;
  return sameIdentity(statOf(source), statOf(target)) && Buffer.from(from).equals(Buffer.from(to));
}

// One file that has these two names and no third.
const isPair = (a, b) => a.isFile() && a.nlink === 2n && sameMetadata(a, b);

function stateOf(old, published) {
  if (old !== undefined && published !== undefined) {
    if (!sameIdentity(old, published)) throw failure('exists');
    if (!isPair(old, published)) throw failure('outside');
    return 'both';
  }
  const only = old ?? published;
  if (only === undefined) return 'nothing';
  if (!isSoleFile(only)) throw failure('outside');
  return only === old ? 'candidate' : 'published';
}

function finish(source, from, target, to) {
  if (isOneEntry(source, from, target, to)) throw failure('outside');
  const state = stateOf(lookIfThere(source, from), lookIfThere(target, to));
  if (state === 'nothing' || state === 'candidate') return state;
  fs.fsyncSync(target);
  if (state === 'both') {
    const published = look(target, to);
    const isStill = (stat) => published !== undefined && isPair(stat, published);
    // Another process changed one of the names: the next call finds what is there now.
    if (!unlinkIf(source, from, isStill)) throw failure('outside');
  }
  if (source !== undefined) fs.fsyncSync(source);
  return 'published';
}

function finishPublish(root, candidate, destination) {
  return inParentIfThere(root, candidate, (source, from) =>
    inParentIfThere(root, destination, (target, to) => finish(source, from, target, to)),
  );
}

module.exports = { publishFile, finishPublish };
