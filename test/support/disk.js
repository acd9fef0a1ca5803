'use strict';

// A model of a disk: replays recorded calls, and yields what a crash can leave.
//
// A name is durable after a flush of its directory, and bytes after a flush of their file. What is
// not flushed may or may not have reached the disk. A rename reaches it whole or not at all. There
// are three kinds of disk:
//
//   journal  names reach the disk in order; the flush of a directory brings all earlier changes
//   log      names reach the disk in order, all at once; but the flush of a directory brings only
//            the changes in that directory
//   none     names reach the disk in any combination; a rename needs a flush of both directories

const { constants } = require('node:fs');
const path = require('node:path');
const { place } = require('./harness.js');

// A directory is an empty object: its entries follow from the changes. Anything else is a type and
// a text: `now` is what processes see, and `kept` what a crash may leave.
const makeLeaf = (is) => ({ now: is, kept: new Set([is]) });

// Without modes and link counts.
function plain(image) {
  const without = ([name, is]) => [name, is.replace(/^(\d+)\d{4}( \d+)?/, '$1')];
  return Object.fromEntries(Object.entries(image).map(without));
}

function namesIn(directory, changes) {
  const names = new Map();
  for (const [at, name, node] of changes.flatMap((one) => one.names)) {
    if (at === directory) names.set(name, node);
  }
  return names;
}

function imagesOf(node, changes, textsOf, at = '') {
  if (node.kept) return textsOf(node).map((is) => ({ [at]: is }));
  let images = [at ? { [at]: '4' } : {}];
  for (const [name, inner] of namesIn(node, changes)) {
    const ways = inner ? imagesOf(inner, changes, textsOf, path.join(at, name)) : [{}];
    images = images.flatMap((image) => ways.map((way) => ({ ...image, ...way })));
  }
  return images;
}

class Disk {
  root = {};
  changes = [];

  constructor(image, kind) {
    this.kind = kind;
    for (const [at, is] of Object.entries(plain(image))) {
      const [directory, name] = [path.dirname(at), path.basename(at)];
      this.change([place.at(directory), name, is === '4' ? {} : makeLeaf(is)]);
    }
    for (const one of this.changes) one.waits = [];
  }

  // The node at an absolute path, as processes see it.
  find(at) {
    const names = path.relative(place.root, at).split('/').filter(Boolean);
    return names.reduce((node, name) => namesIn(node, this.changes).get(name), this.root);
  }

  // Sets each [directory, name, node], or removes it without a node. `waits` still need a flush.
  change(...changes) {
    const names = changes.map(([at, ...change]) => [this.find(at), ...change]);
    this.changes.push({ names, waits: names.map(([at]) => at) });
  }

  // The method of its name replays a call, with paths for descriptors. Other calls change nothing.
  apply({ name, args, error }) {
    if (!error) this[name]?.(...args);
  }

  mkdirat = (at, name) => this.change([at, name, {}]);
  unlinkat = (at, name) => this.change([at, name]);
  symlinkat = (text, at, name) => this.change([at, name, makeLeaf(`12 ${text}`)]);
  linkat = (a, from, b, to) => this.change([b, to, this.find(path.join(a, from))]);
  renameat = (a, from, b, to) => this.change([a, from], [b, to, this.find(path.join(a, from))]);

  openat(at, name, flags) {
    const isMade = flags & constants.O_CREAT && !this.find(path.join(at, name));
    if (isMade) this.change([at, name, makeLeaf('10 ')]);
  }

  // Appends. A crash can leave all of the bytes, a part, or zeros.
  write(at, quoted) {
    const bytes = quoted.slice(1, -1);
    const node = this.find(at);
    const pieces = [bytes, bytes.slice(0, bytes.length / 2), '\0'.repeat(bytes.length)];
    node.kept = new Set([...node.kept].flatMap((is) => [is, ...pieces.map((one) => is + one)]));
    node.now += bytes;
  }

  fsync(at) {
    const node = this.find(at);
    if (node.kept) {
      node.kept = new Set([node.now]);
      return;
    }
    for (const one of this.changes) {
      const isBrought = this.kind === 'log' ? one.waits.includes(node) : this.kind === 'journal';
      one.waits = isBrought ? [] : one.waits.filter((directory) => directory !== node);
    }
  }

  // The image that processes see.
  now() {
    return imagesOf(this.root, this.changes, ({ now }) => [now])[0];
  }

  // All images that a crash can leave.
  *states() {
    const pending = this.changes.filter(({ waits }) => waits.length > 0);
    const inOrder = this.kind !== 'none';
    const count = inOrder ? pending.length + 1 : 1 << pending.length;
    for (let n = 0; n < count; ++n) {
      const lost = pending.filter((_, i) => (inOrder ? i >= n : n & (1 << i)));
      const changes = this.changes.filter((one) => !lost.includes(one));
      yield* imagesOf(this.root, changes, ({ kept }) => [...kept]);
    }
  }
}

module.exports = { Disk, plain };
