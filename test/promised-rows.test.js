'use strict';

// The rows of test/operations/ through tarvek/promises: results, kinds of entries and bad arguments. What
// differs from the synchronous functions: there are no hooks and stages, and the place after the last
// argument is that of the options.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const promises = require('../promises/index.js');
const { CLOSED, wrongCalls } = require('./support/arguments.js');
const { inRoot, outcomeOf } = require('./support/async-root.js');
const { assertTree, expectOutcome, identityOf, place } = require('./support/harness.js');
const { prepare, table } = require('./support/harness.js');
const { fitting, kinds, scenarios } = require('./support/rows.js');

// As the sandbox of harness.js, with a root of the promises as its handle.
function withRoot(layout, body) {
  return inRoot(layout, async (handle) => {
    const borrowed = [];
    const open = (at, flags) => {
      const fd = fs.openSync(at, flags);
      borrowed.push(fd);
      return fd;
    };
    try {
      await body({ ...place, handle, open });
    } finally {
      for (const fd of borrowed) fs.closeSync(fd);
    }
  });
}

async function expectCall(expected, [operation, args]) {
  return expectOutcome(expected, await outcomeOf(promises[operation](...args)));
}

const isOffered = (call) => call.split(' ')[0] in promises && !call.endsWith('stage');
const opens = (call) => /^open/.test(call);

async function expectRow(layout, call, expected) {
  await withRoot(layout, async (ctx) => {
    const result = await expectCall(expected, prepare(ctx, call));
    if (opens(call) && expected === '-') await promises.close(result);
    assert.equal(fs.existsSync(ctx.at('made')), call.includes(' made/'), '`made` exists');
    assert.equal(fs.existsSync(ctx.at('never')), false, '`never` exists');
  });
}

async function expectScenario({ before, call, leaf, check, after }) {
  await withRoot(before, async (ctx) => {
    const result = await expectCall('-', prepare(ctx, call));
    if (opens(call)) {
      assert.deepEqual(await promises.rootIdentity(result), identityOf(ctx.at(leaf)));
      await promises.close(result);
    } else {
      check(result, ctx);
    }
    assertTree(after);
  });
}

async function expectRefusals(layout, call, wrong) {
  await withRoot(layout, async (ctx) => {
    const closed = await promises.openRoot(ctx.root);
    await promises.close(closed);
    const [operation, good] = prepare(ctx, call.replace(' stage', ''));
    for (const { what, failure, args } of wrong(good)) {
      if (what === 'with a bad stage') continue;
      const given = args.map((value) => (value === CLOSED ? closed : value));
      // One argument too many is in the place of the options.
      const expected = args.length === good.length + 1 ? 'storage' : failure;
      const outcome = await outcomeOf(promises[operation](...given));
      assert.doesNotThrow(() => expectOutcome(expected, outcome), what);
    }
    assertTree(layout);
  });
}

const rowOf = (scenario) => [scenario.name, scenario];
const offered = scenarios.filter(({ call }) => isOffered(call));
const ofCall = ([, , call]) => isOffered(call);
const withoutStage = ([name, , call]) =>
  isOffered(call.replace(' stage', '')) && !name.includes('bad stage');

table('the promise of a call has its result', offered.map(rowOf), expectScenario);
table('a promise refuses a wrong kind of entry', kinds.filter(ofCall), expectRow);
table('a promise refuses what does not fit the disk', fitting.filter(ofCall), expectRow);
table('a promise refuses a bad argument', wrongCalls.filter(withoutStage), expectRefusals);
