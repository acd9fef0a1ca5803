'use strict';

// What a crash can leave on the disk after each system call of each operation that changes it. The
// recorded calls are replayed on the three kinds of disk in support/disk.js. Every operation must
// keep its promises on all three, except publishVerified: it needs a disk that keeps names in order.

const { rehearse } = require('./support/faults.js');
const assert = require('node:assert/strict');
const test = require('node:test');
const { isDeepStrictEqual } = require('node:util');
const { Disk, plain } = require('./support/disk.js');
const { table } = require('./support/harness.js');
const { scenarios } = require('./support/scenarios.js');

// What a crash may leave besides the disk before and after the operation. Parent directories and the
// temporary file of write are left out of the comparison.
const HALF_WAY = {
  create: (...images) => isPartlyWritten(...images),
  append: (...images) => isPartlyWritten(...images),
  // Both names.
  publishVerified: (image, before, after) => isDeepStrictEqual(image, { ...before, ...after }),
  // A part of the tree is gone.
  remove: (image, before) => Object.keys(image).every((name) => image[name] === before[name]),
};
// The old bytes are there, followed by any bytes up to the length of the new content.
function isPartlyWritten(image, before, after, leaf) {
  const isOld = (image[leaf] ?? '').startsWith(before[leaf] ?? '10 ');
  const isLonger = image[leaf]?.length > after[leaf].length;
  return isOld && !isLonger && isDeepStrictEqual({ ...image, [leaf]: after[leaf] }, after);
}

function isAllowed({ operation, paths }, before, after, image) {
  const isLeftOut = (name) =>
    paths.some((names) => names.join('/').startsWith(`${name}/`)) ||
    (operation === 'write' && name.includes('.tarvek-'));
  const [old, updated, found] = [before, after, image].map((whole) =>
    Object.fromEntries(Object.entries(whole).filter(([name]) => !isLeftOut(name))),
  );
  if (isDeepStrictEqual(found, old) || isDeepStrictEqual(found, updated)) return true;
  return HALF_WAY[operation]?.(found, old, updated, paths[0].join('/')) ?? false;
}

// The images that break a promise if the crash comes after one of the calls, and the images after
// the last call that have lost the effect of the operation.
function replay(scenario, { calls, ...images }, kind) {
  const [before, after] = [images.before, images.after].map(plain);
  const disk = new Disk(images.before, kind);
  const forbidden = [];
  for (const call of calls) {
    disk.apply(call);
    for (const image of disk.states()) {
      if (!isAllowed(scenario, before, after, image)) forbidden.push([call.text, image]);
    }
  }
  return { forbidden, lost: [...disk.states()].filter((one) => !isDeepStrictEqual(one, after)) };
}

function verify(scenario) {
  for (const kind of ['journal', 'log', 'none']) {
    const { forbidden, lost } = replay(scenario, rehearse(scenario), kind);
    assert.deepEqual(lost, [], kind);
    const isRisky = scenario.operation === 'publishVerified' && kind === 'none';
    if (isRisky) assert.notEqual(forbidden.length, 0, 'it needs a disk that keeps names in order');
    else assert.deepEqual(forbidden, [], kind);
  }
}

// exchangeForTest flushes nothing and promises nothing.
const changing = scenarios.filter((one) => one.mutates && one.operation !== 'exchangeForTest');
const rows = changing.map((scenario) => [scenario.name, () => verify(scenario)]);
table('a crash after any system call leaves a disk that keeps the promises', rows);

test('flushing the removal of the old name first could lose the published file', () => {
  const name = 'publishVerified fd:a/b/leaf a/b/leaf c/d/other OLD';
  const scenario = scenarios.find((one) => one.name === name);
  const normal = rehearse(scenario);
  const calls = normal.calls.filter((call) => call.name !== 'fsync');
  const flushes = normal.calls.filter((call) => call.name === 'fsync').reverse();
  const { forbidden } = replay(scenario, { ...normal, calls: [...calls, ...flushes] }, 'log');
  assert.deepEqual(forbidden.at(-1)[1], { a: '4', 'a/b': '4', c: '4', 'c/d': '4' });
});
