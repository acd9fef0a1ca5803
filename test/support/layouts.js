'use strict';

// A layout describes what is on disk: a string or Buffer is a file, an object is a directory, and
// undefined is a missing entry. Any other entry is a function that creates it at the path `at`.

const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const net = require('node:net');
const path = require('node:path');

const OLD = 'the bytes of before';
const BYTES = {
  OLD: Buffer.from(OLD),
  NEW: Buffer.from('the new bytes'),
  MANY: Buffer.alloc((16 << 20) + 1),
};

const TREE = { s: { g: 'two' } };

const symlink = (text) => (at) => fs.symlinkSync(text, at);
const hardlink = (sibling) => (at) => fs.linkSync(path.join(path.dirname(at), sibling), at);
const fifo = () => (at) => execFileSync('mkfifo', [at]);

// A file of zeros, which takes no room on the disk.
const sparse = (size) => (at) => {
  fs.writeFileSync(at, '');
  fs.truncateSync(at, size);
};

const socket = () => (at) => {
  const server = net.createServer().listen(`${at}~`);
  try {
    // Closing the server removes the name that it was bound to.
    fs.renameSync(`${at}~`, at);
  } finally {
    server.close();
  }
};

const withMode = (mode, content) => (at) => {
  build(at, content);
  fs.chmodSync(at, mode);
};

const isDirectory = (content) => typeof content === 'object' && !Buffer.isBuffer(content);

// With the mode of an entry that the module created.
const fresh = (content) => withMode(isDirectory(content) ? 0o700 : 0o600, content);

function build(at, content) {
  if (content === undefined) return;
  if (typeof content === 'function') {
    content(at);
    return;
  }
  if (!isDirectory(content)) {
    fs.writeFileSync(at, content);
    return;
  }
  fs.mkdirSync(at);
  for (const [name, inner] of Object.entries(content)) build(path.join(at, name), inner);
}

// A directory below others: nest(['a', 'b'], { f: '' }) is { a: { b: { f: '' } } }. `wrap` is called
// on the content of each of them.
function nest(names, content, wrap = (layout) => layout) {
  return names.reduceRight((inner, name) => ({ [name]: wrap(inner) }), content);
}

// The image of a tree: for each path beneath `at`, one string with its mode, links and content.
function treeOf(at, prefix = '', image = {}) {
  for (const name of fs.readdirSync(at).sort()) {
    const inner = path.join(at, name);
    const stat = fs.lstatSync(inner);
    const mode = stat.mode.toString(8);
    if (stat.isDirectory()) {
      image[prefix + name] = mode;
      treeOf(inner, `${prefix}${name}/`, image);
    } else {
      const text = stat.isSymbolicLink() ? fs.readlinkSync(inner) : '';
      const content = stat.isFile() ? fs.readFileSync(inner, 'latin1') : text;
      image[prefix + name] = `${mode} ${stat.nlink} ${content}`;
    }
  }
  return image;
}

module.exports = {
  OLD,
  BYTES,
  TREE,
  symlink,
  hardlink,
  fifo,
  socket,
  sparse,
  withMode,
  fresh,
  build,
  nest,
  treeOf,
};
