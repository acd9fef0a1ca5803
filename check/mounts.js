'use strict';

// Where other file systems are mounted, as a tree of names: a directory is a Map of those of its
// entries that are mount points or lead to one. A mount point has the key HERE in its own Map. No
// entry has this name.

const fs = require('node:fs');

const HERE = '';

// The kernel writes blank, tab, newline and backslash in octal.
const toByte = (_all, octal) => String.fromCharCode(Number.parseInt(octal, 8));

function readMountTable() {
  try {
    return fs.readFileSync('/proc/self/mountinfo', 'latin1');
  } catch (cause) {
    const problem =
      'the check needs /proc, which is not mounted, or which this process may not read';
    throw new Error(`${problem} (${cause.code})`, { cause });
  }
}

function readMounts() {
  const root = new Map();
  for (const line of readMountTable().trim().split('\n')) {
    const point = line.split(' ')[4].replace(/\\(\d{3})/g, toByte);
    let map = root;
    for (const name of [...point.split('/').filter(Boolean), HERE]) {
      if (!map.has(name)) map.set(name, new Map());
      map = map.get(name);
    }
  }
  return root;
}

const isMountPoint = (mounts) => Boolean(mounts?.has(HERE));

module.exports = { readMounts, isMountPoint };
