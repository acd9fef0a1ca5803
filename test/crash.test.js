'use strict';

// What a crash leaves on the disk, at every moment of every operation that changes it: first the
// recorded calls are replayed on a model of a disk, then a process is killed after each of them.
// TARVEK_TEST_FULL=1 kills after all calls, else only after those that change something.
//
// In the model a name lasts only once its directory is flushed, and bytes once their file is; what
// is not flushed has reached the disk or has not, in any combination. A rename has reached it whole
// or not at all, and for sure when both directories are flushed. A journal keeps names in order: what
// reaches the disk brings all along that was changed before. Only publishVerified relies on one.

const faults = require('./support/faults.js');
const assert = require('node:assert/strict');
const { O_APPEND, O_CREAT, O_WRONLY } = require('node:fs').constants;
const os = require('node:os');
const test = require('node:test');
const { isDeepStrictEqual } = require('node:util');
const { BYTES, expectCall, expectOutcome, table } = require('./support/harness.js');
const { scenarios } = require('./support/scenarios.js');
const tarvek = require('./support/tarvek.js');

// `now` is what processes see, `kept` what lasts: the names in a directory, and for anything else,
// which is a type and a text, all that it may turn out to be.
const makeDirectory = () => ({ now: new Map(), kept: new Map() });
const makeLeaf = (is) => ({ now: is, kept: new Set([is]) });
const BEGIN = '10 '.length;
const set = (names, name, node) => (node ? names.set(name, node) : names.delete(name));
const put = (text, at, piece) => text.slice(0, at) + piece + text.slice(at + piece.length);

class Disk {
  root = makeDirectory();
  open = new Map();
  pending = [];

  constructor(image, journal) {
    this.journal = journal;
    for (const [path, is] of Object.entries(image)) {
      const [name, ...above] = path.split('/').reverse();
      const parent = above.reduceRight((at, one) => at.now.get(one), this.root);
      this.change([parent, name, is === '4' ? makeDirectory() : makeLeaf(is)]);
      this.flush(parent);
    }
  }

  at(fd) {
    return this.open.get(fd)?.node ?? this.root;
  }

  // Of [directory, name, node], all in one step; a name without a node goes.
  change(...names) {
    this.pending.push({ names, waits: names.map(([at]) => at) });
    for (const [at, ...change] of names) set(at.now, ...change);
  }

  write(open, bytes) {
    const { node, at } = open;
    const pieces = [bytes, bytes.slice(0, bytes.length / 2), '\0'.repeat(bytes.length)];
    const ways = [...node.kept].flatMap((text) => pieces.map((piece) => put(text, at, piece)));
    node.kept = new Set([...node.kept, ...ways]);
    node.now = put(node.now, at, bytes);
    open.at += bytes.length;
  }

  flush(node) {
    if (typeof node.now === 'string') {
      node.kept = new Set([node.now]);
      return;
    }
    for (const change of this.pending) {
      change.waits = change.waits.filter((at) => at !== node && !this.journal);
      if (change.waits.length > 0) continue;
      for (const [at, ...is] of change.names) set(at.kept, ...is);
    }
    this.pending = this.pending.filter(({ waits }) => waits.length > 0);
  }

  // The images that a crash may leave.
  *states() {
    const { length } = this.pending;
    for (let n = 0; n < (this.journal ? length + 1 : 1 << length); ++n) {
      const isDone = (_, i) => (this.journal ? i < n : n & (1 << i));
      yield* imagesOf(this.root, this.pending.filter(isDone));
    }
  }
}

function imagesOf(node, done, path = '') {
  if (node.kept instanceof Set) return [...node.kept].map((is) => ({ [path]: is }));
  const names = new Map(node.kept);
  for (const [at, ...change] of done.flatMap((one) => one.names)) {
    if (at === node) set(names, ...change);
  }
  let images = [path ? { [path]: '4' } : {}];
  for (const [name, inner] of names) {
    const ways = imagesOf(inner, done, path ? `${path}/${name}` : name);
    images = images.flatMap((image) => ways.map((way) => ({ ...image, ...way })));
  }
  return images;
}

const CALLS = {
  dup: (disk, [fd], to) => disk.open.set(to, { node: disk.at(fd) }),
  openat: (disk, [fd, name, flags], to) => {
    const parent = disk.at(fd);
    if (!parent.now.has(name)) disk.change([parent, name, makeLeaf('10 ')]);
    const node = parent.now.get(name);
    disk.open.set(to, { node, at: flags & O_APPEND ? node.now.length : BEGIN });
  },
  mkdirat: (disk, [fd, name]) => disk.change([disk.at(fd), name, makeDirectory()]),
  unlinkat: (disk, [fd, name]) => disk.change([disk.at(fd), name]),
  linkat: (disk, [from, a, to, b]) => disk.change([disk.at(to), b, disk.at(from).now.get(a)]),
  renameat: (disk, [from, a, to, b]) =>
    disk.change([disk.at(from), a], [disk.at(to), b, disk.at(from).now.get(a)]),
  symlinkat: (disk, [text, fd, name]) => disk.change([disk.at(fd), name, makeLeaf(`12 ${text}`)]),
  syscall: (disk, [, fd, a, , b]) => {
    const { now } = disk.at(fd);
    disk.change([disk.at(fd), a, now.get(b)], [disk.at(fd), b, now.get(a)]);
  },
  write: (disk, [fd, bytes]) => disk.write(disk.open.get(fd), bytes),
  fsync: (disk, [fd]) => disk.flush(disk.at(fd)),
};

// What is wrong with the states after each call, and with those after the last one, when who is told
// of success relies on it. (An exchange is made for tests, and promises nothing.)
function replay(scenario, { before, after, calls }, journal = true) {
  const disk = new Disk(faults.plain(before), journal);
  const found = { states: 0, unlawful: [], lost: [] };
  for (const [name, ...args] of calls) {
    const result = args.pop();
    if (result < 0 || !CALLS[name]) continue;
    CALLS[name](disk, args, result);
    for (const image of disk.states()) {
      ++found.states;
      if (!faults.isLawful(scenario, before, after, image)) found.unlawful.push([name, image]);
    }
  }
  const isLost = (image) => !isDeepStrictEqual(image, faults.plain(after));
  if (scenario.operation !== 'exchangeForTest') found.lost = [...disk.states()].filter(isLost);
  return found;
}

const MUTATING = scenarios.filter(({ mutates }) => mutates);
const rows = (verify, suits = () => true) =>
  MUTATING.filter(suits).map((scenario) => [
    scenario.name,
    () => faults.rehearse(scenario, (run, whole) => verify(scenario, whole, run)),
  ]);

const checked = { states: 0, kills: 0 };
table(
  'whatever has reached the disk at a crash, it holds what the operation promises',
  rows((scenario, whole) => {
    for (const journal of [true, false]) {
      const { states, unlawful, lost } = replay(scenario, whole, journal);
      checked.states += states;
      assert.deepEqual(lost, []);
      if (scenario.operation === 'publishVerified' && !journal) assert.notEqual(unlawful.length, 0);
      else assert.deepEqual(unlawful, []);
    }
  }),
);

test('the model misses a flush that is left out', () => {
  const needless = {};
  for (const scenario of MUTATING) {
    faults.rehearse(scenario, (_, { calls, ...images }) => {
      for (const [i, [name]] of calls.entries()) {
        const others = { ...images, calls: calls.filter((_, at) => at !== i) };
        if (name !== 'fsync' || replay(scenario, others, false).lost.length > 0) continue;
        needless[scenario.operation] = (needless[scenario.operation] ?? 0) + 1;
      }
    });
  }
  // Of what is flushed once more, of a directory whose names stay the same, or that goes itself.
  assert.deepEqual(needless, { append: 2, remove: 4, move: 4, publishVerified: 2 });
});

const edit = (calls, which, change) =>
  calls.flatMap((call) => (call[0] === which ? change(call) : [call]));
const unlink = (fd, name) => ['unlinkat', fd, name, 0, 0];
const DAMAGES = {
  'write, the bytes are flushed after the rename': (calls) => {
    const rename = calls.find(([name]) => name === 'renameat');
    const others = calls.filter((call) => call !== rename);
    return edit(others, 'write', (call) => [call, rename]);
  },
  'write, what it replaces goes first': (calls) =>
    edit(calls, 'renameat', (call) => [unlink(call[3], call[4]), call]),
  'append, at the beginning': (calls) =>
    edit(calls, 'openat', (call) => [call.map((one, i) => (i === 3 ? one & ~O_APPEND : one))]),
  'move, in two steps': (calls) =>
    edit(calls, 'renameat', (call) => [['linkat', ...call.slice(1)], unlink(call[1], call[2])]),
  'publishVerified, the candidate goes first': (calls) =>
    edit(calls, 'linkat', (call) => [unlink(call[1], call[2]), call]),
  'publishVerified, the candidate is written to': (calls) => {
    const open = ([, fd, name]) => ['openat', fd, name, O_WRONLY, 99];
    return edit(calls, 'linkat', (call) => [open(call), ['write', 99, '?', 1, 1], call]);
  },
};
table(
  'the model notices a damage',
  Object.entries(DAMAGES).flatMap(([title, damage]) => {
    const notices = (scenario, whole) => {
      const { unlawful } = replay(scenario, { ...whole, calls: damage(whole.calls) });
      assert.notEqual(unlawful.length, 0, title);
    };
    const isOver = ({ before, paths }) => paths[0].reduce((at, name) => at?.[name], before);
    return rows(notices, (one) => one.operation === title.split(',')[0] && isOver(one));
  }),
);

const CHANGING = /^(mkdirat|unlinkat|renameat|linkat|symlinkat|write|syscall)$/;

function verifyKilled(scenario, { before, after }, isLast, { ctx, outcome, image, ended }) {
  expectOutcome('storage', outcome);
  assert.equal(ended, os.constants.signals.SIGKILL, 'the status of the process');
  if (isLast || !faults.isLawful(scenario, before, after, image)) assert.deepEqual(image, after);
  for (const path of scenario.paths) {
    const there = image[path.join('/')];
    const isTaken = there && !/^100\d+ 1 /.test(there);
    expectCall(isTaken ? 'outside' : '-', ctx, ['write', [ctx.handle, path, BYTES.NEW]]);
    if (!isTaken) assert.deepEqual(tarvek.read(ctx.handle, path), BYTES.NEW);
  }
}

// Before a call the disk is as it was after the one before, so this covers both. What dies is a copy
// of this process that cannot run JavaScript: no callbacks.
table(
  'a killed process leaves what the operation promises, and a write to the name succeeds',
  rows(
    (scenario, whole, run) => {
      for (const [i, [name, , , flags]] of whole.calls.entries()) {
        const isLast = i === whole.calls.length - 1;
        const changes = CHANGING.test(name) || (name === 'openat' && flags & O_CREAT);
        if (!isLast && !changes && !faults.full) continue;
        const plan = { first: i + 1, action: 'kill' };
        run(plan, (seen) => verifyKilled(scenario, whole, isLast, seen));
        ++checked.kills;
      }
    },
    ({ call }) => !call.endsWith(' stage'),
  ),
);

test('there was enough to check', (t) => {
  t.diagnostic(`${checked.states} crash states, ${checked.kills} kills`);
  assert.ok(checked.states >= 1000 && checked.kills >= 112);
});
