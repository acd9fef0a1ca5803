'use strict';

// The operations as a program usually writes them with node:fs, without the guarantees: a path is a
// string, symlinks are followed, and changes by other processes go unnoticed. `write` alone is atomic
// and flushed, because a bare writeFileSync does not do the same work.

const fs = require('node:fs');
const path = require('node:path');

const place = (root, names) => path.join(root, ...names);

function walk(root, name, visit) {
  const at = path.join(root, name);
  const stat = fs.lstatSync(at);
  visit(name, at, stat);
  if (!stat.isDirectory()) return;
  for (const child of fs.readdirSync(at)) walk(root, `${name}/${child}`, visit);
}

function captureOne(root, name) {
  const records = [];
  walk(root, name, (found, at, stat) => {
    const mode = stat.mode & 0o777;
    if (stat.isDirectory()) records.push({ path: found, type: 'directory', mode });
    else records.push({ path: found, type: 'file', mode, body: fs.readFileSync(at) });
  });
  return records;
}

function snapshot(root, names) {
  const files = Object.create(null);
  walk(place(root, names), '.', (found, at, stat) => {
    if (!stat.isDirectory()) files[found.slice(2)] = fs.readFileSync(at);
  });
  return files;
}

function write(root, names, body) {
  const target = place(root, names);
  const temp = `${target}.${process.pid}`;
  const fd = fs.openSync(temp, 'wx', 0o600);
  fs.writeSync(fd, body);
  fs.fsyncSync(fd);
  fs.closeSync(fd);
  fs.renameSync(temp, target);
}

function ensureRelativeSymlink(root, link, target) {
  const text = [...link.slice(1).map(() => '..'), ...target].join('/');
  try {
    fs.symlinkSync(text, place(root, link));
    return true;
  } catch (error) {
    if (error.code === 'EEXIST' && fs.readlinkSync(place(root, link)) === text) return false;
    throw error;
  }
}

function removeIfEquals(root, names, expected) {
  const target = place(root, names);
  if (fs.readFileSync(target).equals(expected)) fs.unlinkSync(target);
}

function publishVerified(root, fd, candidate, destination, expected) {
  const body = Buffer.alloc(expected.length);
  fs.readSync(fd, body, 0, body.length, 0);
  if (body.equals(expected)) fs.renameSync(place(root, candidate), place(root, destination));
}

module.exports = {
  openRoot: (at) => fs.realpathSync(at),
  openRelative: (root, names) => fs.realpathSync(place(root, names)),
  close: () => {},
  exists: (root, names) => fs.existsSync(place(root, names)),
  read: (root, names) => fs.readFileSync(place(root, names)),
  list: (root, names) => fs.readdirSync(place(root, names)),
  write,
  create: (root, names, body) =>
    fs.writeFileSync(place(root, names), body, { flag: 'wx', mode: 0o600 }),
  append: (root, names, _, __, body) => fs.appendFileSync(place(root, names), body),
  ensureDirectory: (root, names) => {
    fs.mkdirSync(place(root, names), { recursive: true, mode: 0o700 });
  },
  ensureRelativeSymlink,
  remove: (root, names) => fs.rmSync(place(root, names), { recursive: true }),
  removeIfEquals,
  move: (root, from, to) => fs.renameSync(place(root, from), place(root, to)),
  publishVerified,
  capture: (root, paths) => paths.flatMap((names) => captureOne(root, names.join('/'))),
  snapshot,
};
