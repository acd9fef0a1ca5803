'use strict';

// Why was a call refused? An error of tarvek names no path. This finds the entries that make calls
// fail: below a directory, or on the way to one entry. It only reads, through node:fs, and does not
// load the native module.

const fs = require('node:fs');
const path = require('node:path');
const { readMounts } = require('./mounts.js');
const { isUtf8, obstaclesAt } = require('./obstacles.js');
const { toBytes, toName, walk } = require('./walk.js');

// Relative to the directory that is checked; absolute for that directory and those above it.
function pathOf(entry) {
  const names = [entry.name];
  let above = entry.parent;
  while (above && !above.isTop) {
    names.push(above.name);
    above = above.parent;
  }
  return names.reverse().join('/');
}

function at(name, obstacle) {
  const bytes = toBytes(name);
  const found = { path: bytes.toString(), ...obstacle };
  if (!isUtf8(bytes)) found.bytes = bytes;
  return found;
}

const badName = (why) => ({ kind: 'bad-name', code: 'PATH_OUT_OF_ROOT', why });
const isRefused = (name) => ['', '.', '..'].includes(name) || /[/\\\0]/.test(name);

// Below the directory that is checked: on a way, and everything below its end.
function* below(top, way) {
  const refused = way.findIndex(isRefused);
  if (refused !== -1) {
    yield at(way.slice(0, refused + 1).join('/'), badName('cannot be passed to a call'));
    return;
  }
  for (const entry of walk(top, way)) {
    // Other processes may remove entries during the check. Then nothing stands in the way.
    if (entry.error?.code === 'ENOENT' && entry.step > way.length) continue;
    for (const obstacle of obstaclesAt(entry, entry.step < way.length)) {
      yield at(pathOf(entry), obstacle);
    }
  }
}

// Undefined if the path leads nowhere.
function resolveLinks(name) {
  try {
    return toName(fs.realpathSync.native(toBytes(name), { encoding: 'buffer' }));
  } catch {
    return undefined;
  }
}

// From / to the directory, and below it. `openRoot` refuses a symlink on the way. It is reported,
// and the check goes on where it leads.
function* from(slash, directory, ways) {
  if (directory === '/' || directory.includes('\0')) {
    yield at(directory, badName('cannot be a root'));
    return;
  }
  const names = directory.split('/').slice(1);
  for (const entry of walk(slash, names)) {
    // What is mounted there, or above, hinders no call below it.
    for (const obstacle of obstaclesAt({ ...entry, mounts: undefined }, true)) {
      yield at(pathOf(entry), obstacle);
    }
    if (entry.stat?.isSymbolicLink()) {
      const real = resolveLinks(directory);
      if (real !== undefined) yield* from(slash, real, ways);
    } else if (entry.step === names.length && entry.fd !== undefined) {
      for (const way of ways) yield* below({ ...entry, isTop: true }, way);
      return;
    }
  }
}

function* fromSlash(directory, ways) {
  const fd = fs.openSync('/', fs.constants.O_RDONLY | fs.constants.O_DIRECTORY);
  try {
    yield* from({ name: '', fd, mounts: readMounts() }, directory, ways);
  } finally {
    fs.closeSync(fd);
  }
}

const fromText = (text) => toName(Buffer.from(text));

function check(directory, ...paths) {
  // Required: an empty path is refused. It would lead to the current directory.
  if (typeof directory !== 'string' || directory === '') {
    throw new TypeError('the directory is a path: a string that is not empty');
  }
  for (const names of paths) {
    const isPath = Array.isArray(names) && names.length > 0;
    if (!isPath || ![...names].every((name) => typeof name === 'string')) {
      throw new TypeError('a path is an array with at least one name');
    }
  }
  const ways = paths.length === 0 ? [[]] : paths.map((names) => names.map(fromText));
  return fromSlash(fromText(path.resolve(directory)), ways);
}

function escaped(character) {
  const code = character.codePointAt(0).toString(16);
  return code.length > 2 ? `\\u{${code}}` : `\\x${code.padStart(2, '0')}`;
}

// A path as text that is safe in a terminal. Characters that cannot be seen are escaped, and in a
// path that is not UTF-8 every byte that is not ASCII.
function show({ path: text, bytes }) {
  if (bytes) return toName(bytes).replace(/[^ -[\]-~]/g, escaped);
  return text.replace(/\\|(?! )[\p{C}\p{Z}]/gu, escaped);
}

function format(found) {
  const line = `${show(found)}: ${found.why}`;
  return found.code === null ? line : `${line} (${found.code})`;
}

module.exports = { check, format };
