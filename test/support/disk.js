'use strict';

// A model of a disk. It replays recorded calls and yields every image that a crash can leave.
//
// A name is durable after a flush of its directory, and bytes are durable after a flush of their
// file. A change that is not flushed may or may not have reached the disk. A rename reaches the disk
// completely or not at all. There are three kinds of disk:
//
//   journal  names reach the disk in order; the flush of a directory flushes all earlier changes
//   log      names reach the disk in order, all at once; but the flush of a directory flushes only
//            the changes in that directory
//   none     names reach the disk in any combination; a rename needs a flush of both directories

const { constants } = require('node:fs');
const path = require('node:path');
const { place } = require('./harness.js');

// A directory is an empty object: the list of changes determines its entries. Every other node has a
// type and a content, in one string. `now` is what processes see, and `kept` what a crash can leave.
const makeLeaf = (content) => ({ now: content, kept: new Set([content]) });

// The image without modes and link counts, which the model does not know.
function plain(image) {
  const typeOnly = ([name, entry]) => [name, entry.replace(/^(\d+)\d{4}( \d+)?/, '$1')];
  return Object.fromEntries(Object.entries(image).map(typeOnly));
}

function namesIn(directory, changes) {
  const names = new Map();
  for (const [parent, name, node] of changes.flatMap((one) => one.names)) {
    if (parent === directory) names.set(name, node);
  }
  return names;
}

// Every image of the tree at `node` after these changes. `contentsOf` returns the possible contents.
function imagesOf(node, changes, contentsOf, at = '') {
  if (node.kept) return contentsOf(node).map((content) => ({ [at]: content }));
  let images = [at ? { [at]: '4' } : {}];
  for (const [name, inner] of namesIn(node, changes)) {
    const below = inner ? imagesOf(inner, changes, contentsOf, path.join(at, name)) : [{}];
    images = images.flatMap((image) => below.map((more) => ({ ...image, ...more })));
  }
  return images;
}

class Disk {
  root = {};
  changes = [];

  constructor(image, kind) {
    this.kind = kind;
    for (const [at, content] of Object.entries(plain(image))) {
      const [directory, name] = [path.dirname(at), path.basename(at)];
      this.change([place.at(directory), name, content === '4' ? {} : makeLeaf(content)]);
    }
    for (const one of this.changes) one.unflushed = [];
  }

  // The node at an absolute path, as processes see it.
  find(at) {
    const names = path.relative(place.root, at).split('/').filter(Boolean);
    return names.reduce((node, name) => namesIn(node, this.changes).get(name), this.root);
  }

  // Sets each [directory, name, node], or removes the name if there is no node. `unflushed` lists the
  // directories that must still be flushed before the change is durable.
  change(...changes) {
    const names = changes.map(([directory, ...rest]) => [this.find(directory), ...rest]);
    this.changes.push({ names, unflushed: names.map(([directory]) => directory) });
  }

  // Replays a call with the method of its name, with paths for descriptors. Other calls do nothing.
  apply({ name, args, error }) {
    if (!error) this[name]?.(...args);
  }

  mkdirat = (directory, name) => this.change([directory, name, {}]);
  unlinkat = (directory, name) => this.change([directory, name]);
  symlinkat = (text, directory, name) => this.change([directory, name, makeLeaf(`12 ${text}`)]);
  linkat = (dir1, from, dir2, to) => this.change([dir2, to, this.find(path.join(dir1, from))]);
  renameat = (dir1, from, dir2, to) =>
    this.change([dir1, from], [dir2, to, this.find(path.join(dir1, from))]);

  openat(directory, name, flags) {
    const isNew = flags & constants.O_CREAT && !this.find(path.join(directory, name));
    if (isNew) this.change([directory, name, makeLeaf('10 ')]);
  }

  // Every write appends. A crash can leave all of its bytes, a part of them, or zeros.
  write(at, quoted) {
    const bytes = quoted.slice(1, -1);
    const node = this.find(at);
    const pieces = [bytes, bytes.slice(0, bytes.length / 2), '\0'.repeat(bytes.length)];
    node.kept = new Set([...node.kept].flatMap((old) => [old, ...pieces.map((one) => old + one)]));
    node.now += bytes;
  }

  fsync(at) {
    const node = this.find(at);
    if (node.kept) {
      node.kept = new Set([node.now]);
      return;
    }
    for (const one of this.changes) {
      const isWhole = this.kind === 'log' ? one.unflushed.includes(node) : this.kind === 'journal';
      one.unflushed = isWhole ? [] : one.unflushed.filter((directory) => directory !== node);
    }
  }

  // The image that processes see.
  now() {
    return imagesOf(this.root, this.changes, ({ now }) => [now])[0];
  }

  // All images that a crash can leave.
  *states() {
    const pending = this.changes.filter(({ unflushed }) => unflushed.length > 0);
    const inOrder = this.kind !== 'none';
    const count = inOrder ? pending.length + 1 : 1 << pending.length;
    // In order, the first n pending changes survive. Otherwise the bits of n select the lost ones.
    for (let n = 0; n < count; ++n) {
      const lost = pending.filter((_, i) => (inOrder ? i >= n : n & (1 << i)));
      const changes = this.changes.filter((one) => !lost.includes(one));
      yield* imagesOf(this.root, changes, ({ kept }) => [...kept]);
    }
  }
}

module.exports = { Disk, plain };
