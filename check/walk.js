'use strict';

// The entries below a directory, as they are: no symlink is followed.
//
// Each directory is opened below the one before it, and its entries are looked at below its
// descriptor, one name at a time. So a symlink that appears in the middle of a walk leads nowhere,
// and a path can be longer than the system accepts in one call. The price is one descriptor for
// each level, as in `capture`.

const fs = require('node:fs');

const { O_DIRECTORY, O_NOFOLLOW, O_RDONLY, X_OK } = fs.constants;

// A name is a latin1 string here, one character for each byte, since it need not be UTF-8.
const toBytes = (name) => Buffer.from(name, 'latin1');
const toName = (bytes) => bytes.toString('latin1');

const byDescriptor = (fd) => `/proc/self/fd/${fd}`;

// What a directory has under a name: its lstat, or the error in its place.
function look(directory, name, step) {
  const at = toBytes(`${byDescriptor(directory.fd)}/${name}`);
  const entry = { name, parent: directory, at, step, mounts: directory.mounts?.get(name) };
  try {
    entry.stat = fs.lstatSync(at);
  } catch (error) {
    entry.error = error;
  }
  return entry;
}

// Opens a directory. One that cannot be searched is not entered: every look in it would fail.
function enter(directory) {
  let fd;
  try {
    fd = fs.openSync(directory.at, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    fs.accessSync(byDescriptor(fd), X_OK);
    directory.fd = fd;
  } catch (error) {
    if (fd !== undefined) fs.closeSync(fd);
    directory.error = error;
  }
}

function namesIn({ fd }) {
  return fs.readdirSync(byDescriptor(fd), { encoding: 'latin1' }).sort();
}

// Yields the entry at each step of a way below an open directory, and then everything below its
// end: a directory before its entries, names in the order of their bytes, as in `capture`.
//
// An entry has its `name`, its `parent`, where it is `at` while the parent is open, the `step` of
// the way at which it was met, and its `stat` or an `error`. A directory has a descriptor too, open
// until its last entry was yielded; or both `stat` and `error`. If its names cannot be read, it
// comes once more, with that error alone.
function* walk(start, way) {
  const levels = [{ ...start }];
  try {
    while (levels.length > 0) {
      const directory = levels.at(-1);
      const next = way[levels.length - 1];
      try {
        // The last name first, since names are taken from the end.
        directory.names ??= next === undefined ? namesIn(directory).reverse() : [next];
      } catch (error) {
        directory.names = [];
        yield { ...directory, stat: undefined, error };
      }
      const name = directory.names.pop();
      if (name === undefined) {
        levels.pop();
        if (levels.length > 0) fs.closeSync(directory.fd);
        continue;
      }
      const entry = look(directory, name, levels.length);
      if (entry.stat?.isDirectory()) enter(entry);
      if (entry.fd !== undefined) levels.push(entry);
      yield entry;
    }
  } finally {
    // The first one belongs to the caller.
    for (const { fd } of levels.slice(1)) fs.closeSync(fd);
  }
}

module.exports = { toBytes, toName, walk };
