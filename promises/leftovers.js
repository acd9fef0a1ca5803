'use strict';

// removeLeftovers: removes the temporary files that a crash in the middle of a write left, at any
// depth below a directory. It removes nothing but regular files with one link, the name of a
// temporary file and the given age. It steps through single names from directory to directory and
// never follows a symlink, so it stays in the tree that it entered.

const fs = require('node:fs');
const { failureOf } = require('./failures.js');
const { isSoleFile, openDirectory, openProven, refuseNames, unlinkIf } = require('./walk.js');

const TEMPORARY = /^\.tarvek-\d+-\d+-[0-9a-f]{32}$/;

// Another process may remove a directory before its turn, or put something else in its place.
function ifStillThere(examine) {
  try {
    return examine();
  } catch (error) {
    if (['NOT_FOUND', 'PATH_OUT_OF_ROOT'].includes(failureOf(error).code)) return undefined;
    throw error;
  }
}

// Removes the leftovers directly in a directory. Returns the names of the directories in it.
function sweep({ directory, path }, isLeftover, removed) {
  const entries = fs.readdirSync(`/proc/self/fd/${directory}`, { withFileTypes: true });
  const count = removed.length;
  for (const { name } of entries) {
    if (!TEMPORARY.test(name) || !unlinkIf(directory, name, isLeftover)) continue;
    removed.push(`${path}/${name}`);
  }
  if (removed.length > count) fs.fsyncSync(directory);
  return entries.filter((entry) => entry.isDirectory()).map(({ name }) => name);
}

function removeLeftovers(root, segments, olderThan) {
  refuseNames(segments);
  const latest = Date.now() - olderThan;
  const isLeftover = (stat) => isSoleFile(stat) && stat.mtimeMs <= latest;
  const removed = [];
  // From the top directory to the one being searched. Each is open, and `names` lists what is left of
  // the directories in it.
  const levels = [{ directory: openProven(root, segments), path: segments.join('/') }];
  try {
    while (levels.length > 0) {
      const level = levels.at(-1);
      level.names ??= ifStillThere(() => sweep(level, isLeftover, removed)) ?? [];
      const name = level.names.pop();
      if (name === undefined) {
        fs.closeSync(levels.pop().directory);
        continue;
      }
      const directory = ifStillThere(() => openDirectory(level.directory, name));
      if (directory !== undefined) levels.push({ directory, path: `${level.path}/${name}` });
    }
  } finally {
    for (const { directory } of levels) fs.closeSync(directory);
  }
  return removed;
}

module.exports = { removeLeftovers };
