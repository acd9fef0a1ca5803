'use strict';

// What a crash leaves on the disk, at every moment of every operation that changes it: the calls
// that it makes are replayed on the three kinds of disk that support/disk.js models. Every operation
// must keep its promises on all three; publishVerified relies on one that keeps names in order.

const { rehearse } = require('./support/faults.js');
const assert = require('node:assert/strict');
const test = require('node:test');
const { isDeepStrictEqual } = require('node:util');
const { Disk, plain } = require('./support/disk.js');
const { table } = require('./support/harness.js');
const { scenarios } = require('./support/scenarios.js');

// Besides the disk as it was before or is after the call, with the directories on the way made or
// not, and with write's temporary file.
const HALF_WAY = {
  create: (...images) => isGrown(...images),
  append: (...images) => isGrown(...images),
  // Both names.
  publishVerified: (is, before, after) => isDeepStrictEqual(is, { ...before, ...after }),
  // Some of what is beneath it is gone.
  remove: (is, before) => Object.keys(is).every((name) => is[name] === before[name]),
};
// The old bytes are there, and behind them whatever the new ones take up.
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

// The disks that a crash after any of the calls may leave against the promises, and those after the
// last one that have lost what the call was told to have done.
function replay(scenario, whole, kind, calls = whole.calls) {
  const [before, after] = [whole.before, whole.after].map(plain);
  const disk = new Disk(whole.before, kind);
  const unlawful = [];
  for (const call of calls) {
    disk.apply(call);
    const images = [...disk.states()].filter((one) => !isLawful(scenario, before, after, one));
    unlawful.push(...images.map((image) => [call.text, image]));
  }
  // An exchange is made for tests, and promises nothing.
  const isLost = (image) =>
    scenario.operation !== 'exchangeForTest' && !isDeepStrictEqual(image, after);
  return { unlawful, lost: [...disk.states()].filter(isLost) };
}

const rows = scenarios.flatMap((scenario) =>
  scenario.mutates ? ['journal', 'log', 'none'].map((kind) => [scenario, kind]) : [],
);
const crashes = rows.map(([scenario, kind]) => [
  `${scenario.name}: ${kind}`,
  () => {
    const { unlawful, lost } = replay(scenario, rehearse(scenario), kind);
    assert.deepEqual(lost, []);
    const isRisky = scenario.operation === 'publishVerified' && kind === 'none';
    if (isRisky) assert.notEqual(unlawful.length, 0, 'there is nothing left to rely on');
    else assert.deepEqual(unlawful, []);
  },
]);
table('whatever has reached the disk at a crash, it holds what the operation promises', crashes);

// What the model must notice.
const isFlush = ({ name }) => name === 'fsync';
const without = (call, calls) => calls.filter((one) => one !== call);
const MISTAKES = {
  'a file that is renamed before it is flushed': [
    'write leaf NEW, a file',
    'journal',
    (calls) => without(calls.find(isFlush), calls),
  ],
  'a rename that is not flushed': [
    'write leaf NEW, a file',
    'journal',
    (calls) => without(calls.findLast(isFlush), calls),
  ],
  'a candidate whose old name is flushed first': [
    'publishVerified fd:a/b/leaf a/b/leaf c/d/other OLD',
    'log',
    (calls) => [...calls.filter((one) => !isFlush(one)), ...calls.filter(isFlush).reverse()],
  ],
};

for (const [mistake, [name, kind, make]] of Object.entries(MISTAKES)) {
  test(`the model notices ${mistake}`, () => {
    const scenario = scenarios.find((one) => one.name === name);
    const whole = rehearse(scenario);
    const { unlawful, lost } = replay(scenario, whole, kind, make(whole.calls));
    assert.notEqual(unlawful.length + lost.length, 0);
  });
}
