'use strict';

// The same guarantees in JavaScript alone. node:fs cannot open a name relative to a descriptor, but
// the path /proc/self/fd/N/name does: it leads through the open directory, even if the directory has
// moved. A handle is the root's descriptor. The checks and the flushes are those of the module.

const fs = require('node:fs');
const { randomBytes } = require('node:crypto');

const { O_RDONLY, O_WRONLY, O_CREAT, O_EXCL, O_APPEND, O_NONBLOCK, O_NOFOLLOW } = fs.constants;
const DIRECTORY = O_RDONLY | fs.constants.O_DIRECTORY | O_NOFOLLOW;
const FILE = O_RDONLY | O_NONBLOCK | O_NOFOLLOW;
const EXCLUSIVE = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;
const APPENDING = O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW;
const [BIG, BIG_OR_NONE] = [{ bigint: true }, { bigint: true, throwIfNoEntry: false }];
const chunk = Buffer.alloc(64 * 1024);
let sequence = 0;

const at = (directory, name) => `/proc/self/fd/${directory}/${name}`;
const look = (path) => fs.lstatSync(path, BIG);
const lookIfThere = (path) => fs.lstatSync(path, BIG_OR_NONE);
const readNames = (directory) => fs.readdirSync(at(directory, '.'));
const same = (a, b) => a.dev === b.dev && a.ino === b.ino;
const sameTimes = (a, b) => a.mtimeNs === b.mtimeNs && a.ctimeNs === b.ctimeNs;
const stable = (a, b) =>
  same(a, b) && a.mode === b.mode && a.nlink === b.nlink && a.size === b.size && sameTimes(a, b);
const isSole = (stat) => stat.isFile() && stat.nlink === 1n;
const isLinked = (stat) => stat.isSymbolicLink() || (stat.isFile() && stat.nlink > 1n);

function demand(holds) {
  if (!holds) throw new Error('Refused');
}

function using(fd, act) {
  try {
    return act(fd);
  } finally {
    fs.closeSync(fd);
  }
}

function safeLeaf(path, allowMissing = false) {
  const stat = lookIfThere(path);
  demand(stat ? !isLinked(stat) : allowMissing);
  return stat;
}

function makeDirectory(directory, name) {
  try {
    fs.mkdirSync(at(directory, name), 0o700);
    fs.fsyncSync(directory);
  } catch (error) {
    if (error.code !== 'EEXIST') throw error;
  }
}

function openDirectory(directory, name, create) {
  try {
    return fs.openSync(at(directory, name), DIRECTORY);
  } catch (error) {
    if (!create || error.code !== 'ENOENT') throw error;
    makeDirectory(directory, name);
    return fs.openSync(at(directory, name), DIRECTORY);
  }
}

// Opens a directory by name, then checks that the name still leads to it.
const inside = (directory, name, create, act) =>
  using(openDirectory(directory, name, create), (opened) => {
    const stat = fs.fstatSync(opened, BIG);
    const named = look(at(directory, name));
    demand(named.isDirectory() && same(stat, named));
    return act(opened, stat);
  });

function chainHolds(directory, chain, depth = 0) {
  if (depth === chain.length) return true;
  const { name, stat } = chain[depth];
  const named = lookIfThere(at(directory, name));
  if (!named?.isDirectory() || !same(named, stat)) return false;
  return using(openDirectory(directory, name), (next) => chainHolds(next, chain, depth + 1));
}

// Walks down to the leaf's parent, checks every directory on the way again, and acts there.
function toLeaf(root, names, create, act) {
  const chain = [];
  const prove = () => demand(chainHolds(root, chain));
  const descend = (parent) => {
    const name = names[chain.length];
    if (chain.length < names.length - 1) {
      return inside(parent, name, create, (next, stat) => {
        chain.push({ name, stat });
        return descend(next);
      });
    }
    prove();
    return act(at(parent, name), parent, prove);
  };
  return descend(root);
}

// For operations that change the leaf's parent: flushes it afterwards, unless `act` returns false.
const change = (root, names, create, act) =>
  toLeaf(root, names, create, (leaf, parent, prove) => {
    if (act(leaf, parent, prove) !== false) fs.fsyncSync(parent);
  });

const changeBoth = (root, from, to, act) =>
  change(root, from, false, (source, _, proveSource) => {
    change(root, to, true, (target, __, proveTarget) => {
      act(source, target, () => [proveSource(), proveTarget()]);
    });
  });

function readBody(fd, size) {
  const body = Buffer.allocUnsafeSlow(size);
  let length = 0;
  for (let count = -1; length < size && count !== 0; length += count) {
    count = fs.readSync(fd, body, length, size - length, null);
  }
  return body.subarray(0, length);
}

function writeAndFlush(fd, body) {
  for (let offset = 0; offset < body.length; ) offset += fs.writeSync(fd, body, offset);
  fs.fsyncSync(fd);
}

function holdsExactly(fd, expected) {
  let offset = 0;
  while (offset < expected.length) {
    const wanted = Math.min(chunk.length, expected.length - offset);
    const count = fs.readSync(fd, chunk, 0, wanted, offset);
    if (count === 0 || expected.compare(chunk, 0, count, offset, offset + count) !== 0)
      return false;
    offset += count;
  }
  return fs.readSync(fd, chunk, 0, 1, offset) === 0;
}

function verify(fd, path, expected) {
  const opened = fs.fstatSync(fd, BIG);
  demand(isSole(opened) && stable(opened, look(path)) && opened.size === BigInt(expected.length));
  demand(holdsExactly(fd, expected));
  demand(stable(opened, fs.fstatSync(fd, BIG)) && stable(opened, look(path)));
  return opened;
}

const make = (leaf, body) =>
  using(fs.openSync(leaf, EXCLUSIVE, 0o600), (file) => writeAndFlush(file, body));

const write = (root, names, body) =>
  change(root, names, true, (leaf, parent, prove) => {
    const stat = safeLeaf(leaf, true);
    demand(!stat || stat.isFile());
    const random = randomBytes(16).toString('hex');
    const temp = at(parent, `.careful-${process.pid}-${++sequence}-${random}`);
    try {
      make(temp, body);
      prove();
      fs.renameSync(temp, leaf);
    } catch (error) {
      fs.rmSync(temp, { force: true });
      throw error;
    }
  });

const create = (root, names, body) =>
  change(root, names, true, (leaf) => {
    demand(!safeLeaf(leaf, true));
    make(leaf, body);
  });

const append = (root, names, expectedSize, minimumSize, body) =>
  change(root, names, true, (leaf) => {
    const before = safeLeaf(leaf, true);
    using(fs.openSync(leaf, APPENDING, 0o600), (file) => {
      const opened = fs.fstatSync(file, BIG);
      demand(isSole(opened) && same(opened, look(leaf)) && same(before ?? opened, opened));
      demand(opened.size >= Math.max(expectedSize, minimumSize));
      demand(fs.writeSync(file, body) === body.length);
      fs.fsyncSync(file);
    });
  });

const ensureDirectory = (root, names) =>
  change(root, names, true, (leaf) => {
    const stat = lookIfThere(leaf);
    demand(!stat || stat.isDirectory());
    return stat ? false : fs.mkdirSync(leaf, 0o700);
  });

function ensureRelativeSymlink(root, link, target) {
  toLeaf(root, target, false, (leaf) => demand(safeLeaf(leaf).isDirectory()));
  const text = [...link.slice(1).map(() => '..'), ...target].join('/');
  let created = false;
  change(root, link, true, (leaf, _, prove) => {
    const present = lookIfThere(leaf) !== undefined;
    demand(!present || fs.readlinkSync(leaf) === text);
    if (present) return false;
    prove();
    fs.symlinkSync(text, leaf);
    created = true;
    return created;
  });
  return created;
}

function removeEntry(path) {
  if (!safeLeaf(path).isDirectory()) return fs.unlinkSync(path);
  using(fs.openSync(path, DIRECTORY), (directory) => {
    for (const name of readNames(directory)) removeEntry(at(directory, name));
    fs.fsyncSync(directory);
  });
  return fs.rmdirSync(path);
}

const remove = (root, names) => change(root, names, false, removeEntry);

const removeIfEquals = (root, names, expected) =>
  change(root, names, false, (leaf, _, prove) => {
    demand(isSole(look(leaf)));
    using(fs.openSync(leaf, O_RDONLY | O_NOFOLLOW), (file) => verify(file, leaf, expected));
    prove();
    fs.unlinkSync(leaf);
  });

const move = (root, from, to) =>
  changeBoth(root, from, to, (source, target) => {
    safeLeaf(source);
    demand(!safeLeaf(target, true));
    fs.renameSync(source, target);
  });

const publishVerified = (root, fd, candidate, destination, expected) =>
  changeBoth(root, candidate, destination, (source, target, prove) => {
    prove();
    const verified = verify(fd, source, expected);
    fs.linkSync(source, target);
    demand(same(look(target), verified));
    fs.unlinkSync(source);
  });

const read = (root, names) =>
  toLeaf(root, names, false, (leaf) => {
    const named = safeLeaf(leaf);
    demand(named.isFile());
    return using(fs.openSync(leaf, FILE), (file) => {
      const opened = fs.fstatSync(file, BIG);
      demand(isSole(opened) && same(opened, named));
      return readBody(file, Number(opened.size));
    });
  });

const list = (root, names) =>
  toLeaf(root, names, false, (_, parent) => inside(parent, names.at(-1), false, readNames));

function captureEntry(leaf, path, records, identities) {
  const named = look(leaf);
  const isDirectory = named.isDirectory();
  demand(isDirectory || isSole(named));
  using(fs.openSync(leaf, isDirectory ? DIRECTORY : FILE), (fd) => {
    const opened = fs.fstatSync(fd, BIG);
    const identity = `${opened.dev} ${opened.ino}`;
    demand(stable(named, opened) && !identities.has(identity));
    const mode = Number(named.mode & 0o777n);
    const record = { path, type: isDirectory ? 'directory' : 'file', mode };
    records.push(record);
    if (isDirectory) {
      for (const name of readNames(fd)) {
        captureEntry(at(fd, name), `${path}/${name}`, records, identities);
      }
    } else {
      identities.add(identity);
      record.body = readBody(fd, Number(opened.size));
    }
    demand(stable(opened, fs.fstatSync(fd, BIG)) && stable(opened, look(leaf)));
  });
}

function capture(root, paths) {
  const records = [];
  const identities = new Set();
  for (const names of paths) {
    toLeaf(root, names, false, (leaf, _, prove) => {
      captureEntry(leaf, names.join('/'), records, identities);
      prove();
    });
  }
  return records;
}

function snapshotDirectory(directory, prefix, files) {
  for (const name of readNames(directory)) {
    const path = at(directory, name);
    const named = look(path);
    demand(named.isDirectory() || (named.isFile() && !isLinked(named)));
    using(fs.openSync(path, named.isDirectory() ? DIRECTORY : FILE), (fd) => {
      const opened = fs.fstatSync(fd, BIG);
      demand(same(opened, named));
      if (named.isDirectory()) snapshotDirectory(fd, `${prefix}${name}/`, files);
      else files[prefix + name] = readBody(fd, Number(opened.size));
    });
  }
  return files;
}

const snapshot = (root, names) =>
  toLeaf(root, names, false, (_, parent) =>
    inside(parent, names.at(-1), false, (fd) => snapshotDirectory(fd, '', Object.create(null))),
  );

const openRelative = (root, names) =>
  toLeaf(root, [...names, '.'], false, (last) => fs.openSync(last, DIRECTORY));

const openRoot = (path) =>
  using(fs.openSync('/', DIRECTORY), (slash) => openRelative(slash, path.split('/').slice(1)));

const exists = (root, names) =>
  toLeaf(root, names, false, (leaf) => safeLeaf(leaf, true) !== undefined);

module.exports = {
  openRoot,
  openRelative,
  close: fs.closeSync,
  exists,
  read,
  list,
  capture,
  snapshot,
  write,
  create,
  append,
  ensureDirectory,
  ensureRelativeSymlink,
  remove,
  removeIfEquals,
  move,
  publishVerified,
};
