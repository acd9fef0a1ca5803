'use strict';

// Runs the rows of test/operations/ through tarvek/promises. Those of `read` hold for openFile too.
// Then what the promises add: options, and bytes that cross threads.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const test = require('node:test');
const promises = require('tarvek/promises');
const { CLOSED, wrongCalls } = require('./support/arguments.js');
const { inRoot, outcomeOf } = require('./support/async-root.js');
const { assertTree, expectOutcome, identityOf } = require('./support/harness.js');
const { place, prepare, table } = require('./support/harness.js');
const { OLD, fresh } = require('./support/layouts.js');
const { fitting, kinds, scenarios } = require('./support/rows.js');
const synchronous = require('./support/tarvek.js');

// The rows [name, layout, call, ...rest] of the functions that are here too, without stages.
function forPromises(rows) {
  const renamed = rows.flatMap(([name, layout, call, ...rest]) => {
    const [operation] = call.split(' ');
    const others = operation === 'read' ? ['openFile'] : [];
    return [operation, ...others].map((other) => {
      const toOther = (text) => text.replace(operation, other).replace(' stage', '');
      return [toOther(name), layout, toOther(call), ...rest];
    });
  });
  return renamed.filter(([, , call]) => call.split(' ')[0] in promises);
}

// Makes a call. Closes what it opens: a file becomes its content, a root its identity.
async function resultOf(name, args) {
  const result = await promises[name](...args);
  if (name === 'openFile') {
    const content = await result.readFile();
    await result.close();
    return content;
  }
  if (!name.startsWith('open')) return result;
  const identity = await promises.rootIdentity(result);
  await promises.close(result);
  return identity;
}

const succeeding = scenarios.map((scenario) => {
  return [scenario.name, scenario.before, scenario.call, scenario];
});
table('a call succeeds', forPromises(succeeding), (layout, call, { leaf, check, after }) =>
  inRoot(layout, async (_, ctx) => {
    const result = expectOutcome('-', await outcomeOf(resultOf(...prepare(ctx, call))));
    const isRoot = /^open(Root|Relative)/.test(call);
    if (isRoot) assert.deepEqual(result, identityOf(ctx.at(leaf)));
    else check(result, ctx);
    assertTree(after);
  }),
);

// The kinds of entries matter to openFile. The refusals of capture have messages of their own.
const ofKinds = kinds.filter(([name]) => /^(read|capture) /.test(name));
const ending = forPromises([...ofKinds, ...fitting]);
table('a call ends as the synchronous one', ending, (layout, call, expected) =>
  inRoot(layout, async (_, ctx) => {
    expectOutcome(expected, await outcomeOf(resultOf(...prepare(ctx, call))));
  }),
);

const wrong = forPromises(wrongCalls).filter(([name]) => !name.includes('bad stage'));
table('a bad argument is refused', wrong, (layout, words, wrongOf) =>
  inRoot(layout, async (_, ctx) => {
    const closed = await promises.openRoot(place.root);
    await promises.close(closed);
    const [name, good] = prepare(ctx, words);
    for (const { what, failure, args } of wrongOf(good)) {
      const call = args.map((value) => (value === CLOSED ? closed : value));
      const outcome = await outcomeOf(promises[name](...call));
      // One argument too many is not an object of options.
      const expected = args.length === good.length + 1 && args.at(-1) === 1 ? 'storage' : failure;
      assert.doesNotThrow(() => expectOutcome(expected, outcome), what);
    }
  }),
);

const STORAGE = { code: 'FILESYSTEM_FAILURE' };
const thrown = new TypeError('from a getter');
const withGetter = (name) => {
  const get = () => {
    throw thrown;
  };
  return Object.defineProperty([], name, { get });
};

test('wrong options and what a getter throws reject, and another root is refused', () =>
  inRoot({ d: {} }, async (root) => {
    for (const options of [null, 1, 'f', () => {}, { signals: 1 }, { signal: null }]) {
      await assert.rejects(promises.rootIdentity(root, options), STORAGE);
    }
    const extra = promises.openFile(root, ['f'], {}, 1);
    await assert.rejects(extra, { code: 'PATH_OUT_OF_ROOT' });
    await assert.rejects(promises.exists(root, withGetter(0)), thrown);
    await assert.rejects(promises.exists(root, ['f'], withGetter('signal')), thrown);
    const handle = synchronous.openRoot(place.root);
    await assert.rejects(promises.exists(handle, ['f']), { code: 'HANDLE_CLOSED' });
    synchronous.close(handle);
    assert.throws(() => synchronous.exists(root, ['f']), { code: 'HANDLE_CLOSED' });
  }));

const BODIES = {
  'a pooled Buffer': Buffer.from('pooled'),
  'a large Buffer': Buffer.alloc(2 ** 20, 'm'),
  'shared memory': new Uint8Array(new SharedArrayBuffer(20_000)).fill(7),
  'a part of a Uint16Array': new Uint16Array(10).fill(513).subarray(2, 5),
};

table('the bytes of a call are copied at once', Object.entries(BODIES), (body) =>
  inRoot({}, async (root) => {
    const { buffer, byteOffset, byteLength } = body;
    const expected = Buffer.from(new Uint8Array(buffer, byteOffset, byteLength));
    const size = buffer.byteLength;
    const written = promises.write(root, ['f'], body);
    assert.equal(buffer.byteLength, size, 'the memory of the caller');
    body.fill(1);
    await written;
    assert.deepEqual(await promises.read(root, ['f']), expected);
  }),
);

test('memory that is gone counts as no bytes', () =>
  inRoot({}, async (root) => {
    const gone = new DataView(new ArrayBuffer(9));
    structuredClone(gone.buffer, { transfer: [gone.buffer] });
    await promises.write(root, ['f'], gone);
    assertTree({ f: fresh('') });
  }));

const SIZES = [0, 1, 5000, 16_383, 16_384, 65_535, 65_536, 65_537, 0, ...Array(50).fill(3000)];

test('files of every size come back in their order, the small ones in blocks', () => {
  const files = Object.fromEntries(SIZES.map((size, n) => [`f${n}`, Buffer.alloc(size, n)]));
  return inRoot({ d: { ...files, e: { empty: {} } } }, async (root) => {
    // Not in the layout: there it would be the prototype.
    fs.writeFileSync(place.at('d', 'e', '__proto__'), OLD);
    const handle = synchronous.openRoot(place.root);
    const records = await promises.capture(root, [['d']]);
    assert.deepEqual(records, synchronous.capture(handle, [['d']]));
    const snapshot = await promises.snapshot(root, ['d']);
    const expected = synchronous.snapshot(handle, ['d']);
    assert.deepEqual(snapshot, expected);
    assert.deepEqual(Object.keys(snapshot), Object.keys(expected));
    synchronous.close(handle);
    const held = records.map(({ body }) => (body?.length < 16_384 ? body.buffer.byteLength : 0));
    assert.ok(Math.max(...held) <= 65_536, 'a small file does not hold all others');
  });
});
