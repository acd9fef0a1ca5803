'use strict';

// What a crash leaves on the disk, after every call of every operation that changes it. The
// recorded calls are replayed on the three kinds of disk in support/disk.js. Every operation must
// keep its promises on all three, except that publishVerified needs a disk that keeps names in
// order.

const { rehearse } = require('./support/faults.js');
const assert = require('node:assert/strict');
const test = require('node:test');
const { isDeepStrictEqual } = require('node:util');
const { Disk, plain } = require('./support/disk.js');
const { table } = require('./support/harness.js');
const { scenarios } = require('./support/scenarios.js');

// What else a crash may leave than the disk before or after the operation. Directories on the way
// and the temporary file of write do not count.
const HALF_WAY = {
  create: (...images) => isGrown(...images),
  append: (...images) => isGrown(...images),
  // Both names.
  publishVerified: (is, before, after) => isDeepStrictEqual(is, { ...before, ...after }),
  // Some of what is beneath it is gone.
  remove: (is, before) => Object.keys(is).every((name) => is[name] === before[name]),
};
// The old bytes are there, and after them anything up to the length of the new ones.
function isGrown(is, before, after, leaf) {
  const isOld = (is[leaf] ?? '').startsWith(before[leaf] ?? '10 ');
  const isLonger = is[leaf]?.length > after[leaf].length;
  return isOld && !isLonger && isDeepStrictEqual({ ...is, [leaf]: after[leaf] }, after);
}

function isLawful({ operation, paths }, before, after, image) {
  const isPassing = (name) =>
    paths.some((names) => names.join('/').startsWith(`${name}/`)) ||
    (operation === 'write' && name.includes('.tarvek-'));
  const lasting = (one) => Object.fromEntries(Object.entries(one).filter(([at]) => !isPassing(at)));
  const [was, will, is] = [before, after, image].map(lasting);
  if (isDeepStrictEqual(is, was) || isDeepStrictEqual(is, will)) return true;
  return HALF_WAY[operation]?.(is, was, will, paths[0].join('/')) ?? false;
}

// The images that break a promise when the crash comes after one of the calls, and the images after
// the last call that have lost its effect.
function replay(scenario, { calls, ...images }, kind) {
  const [before, after] = [images.before, images.after].map(plain);
  const disk = new Disk(images.before, kind);
  const unlawful = [];
  for (const call of calls) {
    disk.apply(call);
    for (const image of disk.states()) {
      if (!isLawful(scenario, before, after, image)) unlawful.push([call.text, image]);
    }
  }
  return { unlawful, lost: [...disk.states()].filter((one) => !isDeepStrictEqual(one, after)) };
}

function verify(scenario) {
  for (const kind of ['journal', 'log', 'none']) {
    const { unlawful, lost } = replay(scenario, rehearse(scenario), kind);
    assert.deepEqual(lost, [], kind);
    const isRisky = scenario.operation === 'publishVerified' && kind === 'none';
    if (isRisky) assert.notEqual(unlawful.length, 0, 'it relies on the order of names');
    else assert.deepEqual(unlawful, [], kind);
  }
}

// exchangeForTest flushes nothing and promises nothing.
const changing = scenarios.filter((one) => one.mutates && one.operation !== 'exchangeForTest');
const rows = changing.map((scenario) => [scenario.name, () => verify(scenario)]);
table('whatever has reached the disk at a crash, it holds what the operation promises', rows);

test('a candidate whose old name is flushed first can be lost', () => {
  const name = 'publishVerified fd:a/b/leaf a/b/leaf c/d/other OLD';
  const scenario = scenarios.find((one) => one.name === name);
  const whole = rehearse(scenario);
  const calls = whole.calls.filter((call) => call.name !== 'fsync');
  const flushes = whole.calls.filter((call) => call.name === 'fsync').reverse();
  const { unlawful } = replay(scenario, { ...whole, calls: [...calls, ...flushes] }, 'log');
  assert.deepEqual(unlawful.at(-1)[1], { a: '4', 'a/b': '4', c: '4', 'c/d': '4' });
});
