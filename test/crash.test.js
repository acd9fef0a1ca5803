'use strict';

// What a crash leaves on the disk, at every moment of every operation that changes it: first the
// recorded calls are replayed on a model of a disk, then a process is killed after each of them.
// TARVEK_TEST_FULL=1 kills after all calls, else only after those that change something.
//
// In the model a name lasts only once its directory is flushed, and bytes once their file is; what
// is not flushed has reached the disk or has not. A rename has reached it whole or not at all. There
// are three kinds of disk:
//
//   journal  changes reach it in order, and any flush brings all that was changed before
//   log      they reach it in order, all at once; but the flush of a directory brings along the
//            changes of that directory alone
//   none     they reach it in any combination; a rename is sure once both directories are flushed
//
// publishVerified relies on one of the first two, everything else holds on all three.

const { callsIn, isLawful, plain, rehearse, run } = require('./support/faults.js');
const assert = require('node:assert/strict');
const { O_APPEND, O_CREAT } = require('node:fs').constants;
const { SIGKILL } = require('node:os').constants.signals;
const path = require('node:path');
const test = require('node:test');
const { isDeepStrictEqual } = require('node:util');
const { BYTES, expectCall, expectOutcome, lines, table } = require('./support/harness.js');
const { scenarios } = require('./support/scenarios.js');
const tarvek = require('./support/tarvek.js');

// A directory is an empty object: what it holds follows from the changes. Anything else is a type
// and a text, `now` as processes see it and `kept` as all that it may turn out to be.
const makeLeaf = (is) => ({ now: is, kept: new Set([is]) });
const BEGIN = '10 '.length;
const put = (text, at, piece) => text.slice(0, at) + piece + text.slice(at + piece.length);

function namesIn(directory, changes) {
  const names = new Map();
  for (const [at, name, node] of changes.flatMap((one) => one.names)) {
    if (at === directory) names.set(name, node);
  }
  return names;
}

function imagesOf(node, changes, place = '') {
  if (node.kept) return [...node.kept].map((is) => ({ [place]: is }));
  let images = [place ? { [place]: '4' } : {}];
  for (const [name, inner] of namesIn(node, changes)) {
    const ways = inner ? imagesOf(inner, changes, path.join(place, name)) : [{}];
    images = images.flatMap((image) => ways.map((way) => ({ ...image, ...way })));
  }
  return images;
}

// What is called is the method of that name. Before the first call, what is there is open by its
// path.
class Disk {
  root = {};
  open = new Map();
  changes = [];

  constructor(image, kind) {
    this.kind = kind;
    for (const [at, is] of Object.entries(image)) {
      const node = is === '4' ? {} : makeLeaf(is);
      this.open.set(at, { node });
      this.change([path.dirname(at), path.basename(at), node]);
    }
    for (const one of this.changes) one.waits = [];
  }

  at = (fd) => this.open.get(fd)?.node ?? this.root;
  find = (fd, name) => namesIn(this.at(fd), this.changes).get(name);

  // Of [descriptor, name, node], all in one step; a name without a node goes. It lasts once all
  // that it waits for is flushed.
  change(...changes) {
    const names = changes.map(([fd, ...change]) => [this.at(fd), ...change]);
    this.changes.push({ names, waits: names.map(([at]) => at) });
  }

  dup = (fd, to) => this.open.set(to, { node: this.at(fd) });
  mkdirat = (fd, name) => this.change([fd, name, {}]);
  unlinkat = (fd, name) => this.change([fd, name]);
  symlinkat = (text, fd, name) => this.change([fd, name, makeLeaf(`12 ${text}`)]);
  linkat = (a, from, b, to) => this.change([b, to, this.find(a, from)]);
  renameat = (a, from, b, to) => this.change([a, from], [b, to, this.find(a, from)]);
  syscall = (_, a, from, b, to) =>
    this.change([a, from, this.find(b, to)], [b, to, this.find(a, from)]);

  openat(fd, name, flags, to) {
    if (!this.find(fd, name)) this.change([fd, name, makeLeaf('10 ')]);
    const node = this.find(fd, name);
    this.open.set(to, { node, at: flags & O_APPEND ? node.now.length : BEGIN });
  }

  write(fd, bytes) {
    const open = this.open.get(fd);
    const pieces = [bytes, bytes.slice(0, bytes.length / 2), '\0'.repeat(bytes.length)];
    const { node, at } = open;
    for (const text of [...node.kept]) {
      for (const piece of pieces) node.kept.add(put(text, at, piece));
    }
    node.now = put(node.now, at, bytes);
    open.at += bytes.length;
  }

  fsync(fd) {
    const node = this.at(fd);
    if (node.kept) {
      node.kept = new Set([node.now]);
      return;
    }
    for (const one of this.changes) {
      const isBrought = this.kind === 'log' ? one.waits.includes(node) : this.kind === 'journal';
      one.waits = isBrought ? [] : one.waits.filter((at) => at !== node);
    }
  }

  // The images that a crash may leave.
  *states() {
    const pending = this.changes.filter(({ waits }) => waits.length > 0);
    const inOrder = this.kind !== 'none';
    const count = inOrder ? pending.length + 1 : 1 << pending.length;
    for (let n = 0; n < count; ++n) {
      const lost = pending.filter((_, i) => (inOrder ? i >= n : n & (1 << i)));
      const changes = this.changes.filter((one) => !lost.includes(one));
      yield* imagesOf(this.root, changes);
    }
  }
}

// What is wrong with the states after each call, and with those after the last one, when who is
// told of success relies on it. (An exchange is made for tests, and promises nothing.)
function replay(scenario, { before, after }, calls, kind = 'journal') {
  const disk = new Disk(plain(before), kind);
  const found = { states: 0, unlawful: [], lost: [] };
  for (const [name, ...args] of calls) {
    if (args.at(-1) < 0 || !disk[name]) continue;
    disk[name](...args);
    for (const image of disk.states()) {
      ++found.states;
      if (!isLawful(scenario, before, after, image)) found.unlawful.push([name, image]);
    }
  }
  const isLost = (image) => !isDeepStrictEqual(image, plain(after));
  if (scenario.operation !== 'exchangeForTest') found.lost = [...disk.states()].filter(isLost);
  return found;
}

function crashes(title, verify) {
  const mutating = scenarios.filter(({ mutates }) => mutates);
  table(
    title,
    mutating.map((one) => [one.name, () => verify(one, rehearse(one))]),
  );
}

const checked = { states: 0, kills: 0, damages: 0 };

crashes(
  'whatever has reached the disk at a crash, it holds what the operation promises',
  (scenario, whole) => {
    for (const kind of ['journal', 'log', 'none']) {
      const { states, unlawful, lost } = replay(scenario, whole, whole.calls, kind);
      checked.states += states;
      assert.deepEqual(lost, [], kind);
      if (scenario.operation === 'publishVerified' && kind === 'none') assert.notEqual(unlawful.length, 0);
      else assert.deepEqual(unlawful, [], kind);
    }
  },
);

// Flushes that a loss need not follow: of what was flushed before, of a directory whose names stay
// the same, or that goes itself.
const NEEDLESS = lines(`
  1  append .*, a file
  2  remove .*, a directory
  2  (move|publishVerified .*) leaf other`);
crashes('the model notices a flush that is left out', (scenario, whole) => {
  const flushes = whole.calls.filter(([name]) => name === 'fsync');
  const unnoticed = flushes.filter((flush) => {
    const others = whole.calls.filter((call) => call !== flush);
    return replay(scenario, whole, others, 'none').lost.length === 0;
  });
  const [needless = 0] = NEEDLESS.find(([, name]) => scenario.name.match(`^${name}`)) ?? [];
  assert.equal(unnoticed.length, Number(needless));
});

// Which call of an operation that replaces something is told as what instead. $1 to $4 are what it
// is told with: two descriptors and names, for openat descriptor, name, flags and result.
const DAMAGES = lines(String.raw`
  write            (\["write".*\n)([\s\S]*)(\["renameat".*\n)  $1$3$2
  write            renameat  ["unlinkat",$3,$4],$&
  append           openat    ["openat",$1,$2,0,$4]
  move             renameat  ["linkat",$1,$2,$3,$4],["unlinkat",$1,$2,0]
  publishVerified  linkat    ["unlinkat",$1,$2,0],$&
  publishVerified  linkat    ["openat",$1,$2,0,99],["write",99,"?",1],$&`);
crashes('the model notices a damage', (scenario, whole) => {
  for (const [operation, call, instead] of DAMAGES) {
    if (operation !== scenario.operation || scenario.name.includes('nothing')) continue;
    const pattern = call.replace(/^\w+$/, '\\["$&",(.*?),(.*?),(.*?),(.*)\\]');
    const calls = callsIn(whole.record.replace(new RegExp(pattern, 'g'), instead));
    assert.notEqual(replay(scenario, whole, calls).unlawful.length, 0, `${call} as ${instead}`);
    ++checked.damages;
  }
});

const CHANGING = /^(mkdirat|unlinkat|renameat|linkat|symlinkat|write|syscall)$/;

// Before a call the disk is as it was after the one before, so this covers both. What dies is a
// copy of this process that cannot run JavaScript: no callbacks.
crashes(
  'a killed process leaves what the operation promises, and a write to the name succeeds',
  (scenario, { calls, before, after }) => {
    for (const [i, [name, , , flags]] of scenario.call.endsWith(' stage') ? [] : calls.entries()) {
      const isLast = i === calls.length - 1;
      const changes = CHANGING.test(name) || (name === 'openat' && flags & O_CREAT);
      if (!isLast && !changes && process.env.TARVEK_TEST_FULL !== '1') continue;
      ++checked.kills;
      run(scenario, { first: i + 1, action: 'kill' }, ({ ctx, outcome, after: image, ended }) => {
        expectOutcome('storage', outcome);
        assert.equal(ended, SIGKILL, 'the status of the process');
        if (isLast || !isLawful(scenario, before, after, image)) assert.deepEqual(image, after);
        for (const path of scenario.paths) {
          const there = image[path.join('/')];
          const isTaken = there && !/^100\d+ 1 /.test(there);
          expectCall(isTaken ? 'outside' : '-', ctx, ['write', [ctx.handle, path, BYTES.NEW]]);
          if (!isTaken) assert.deepEqual(tarvek.read(ctx.handle, path), BYTES.NEW);
        }
      });
    }
  },
);

test('there was enough to check', (t) => {
  t.diagnostic(`${checked.states} crash states, ${checked.kills} kills`);
  assert.ok(checked.states >= 1240 && checked.kills >= 112);
  assert.equal(checked.damages, 22);
});
