'use strict';

// Runs the rows of test/operations/ through tarvek/promises. Then what the promises add: options, and
// bytes that cross threads.

const assert = require('node:assert/strict');
const test = require('node:test');
const { setTimeout: wait } = require('node:timers/promises');
const promises = require('tarvek/promises');
const { CLOSED, wrongCalls } = require('./support/arguments.js');
const { inRoot, outcomeOf } = require('./support/async-root.js');
const { assertTree, expectOutcome, identityOf } = require('./support/harness.js');
const { place, prepare, table } = require('./support/harness.js');
const { fresh } = require('./support/layouts.js');
const { fitting, kinds, scenarios } = require('./support/rows.js');
const synchronous = require('./support/tarvek.js');

// For tests only, and only for the thread that calls them.
const SYNCHRONOUS = ['setTestHook', 'exchangeForTest'];

test('each function is here too', () => {
  const names = Object.keys(synchronous).filter((name) => !SYNCHRONOUS.includes(name));
  const lacking = names.filter((name) => !(name in promises));
  assert.deepEqual(lacking, [], 'add these to promises/index.js and promises/worker.js');
});

// The rows [name, layout, call, ...rest] of the functions that are here too, without stages. A row of
// `read` is one of `openFile` too.
function forPromises(rows) {
  return rows.flatMap(([name, layout, call, ...rest]) => {
    const [operation] = call.split(' ');
    if (!(operation in promises)) return [];
    const functions = operation === 'read' ? ['read', 'openFile'] : [operation];
    return functions.map((own) => {
      const adapted = (words) => words.replace(operation, own).replace(' stage', '');
      return [adapted(name), layout, adapted(call), ...rest];
    });
  });
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
    const rows = Array.from(wrongOf(good));
    const outcomes = rows.map(({ args }) => {
      const call = args.map((value) => (value === CLOSED ? closed : value));
      return outcomeOf(promises[name](...call));
    });
    for (const [index, outcome] of (await Promise.all(outcomes)).entries()) {
      const { what, failure, args } = rows[index];
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

// Its properties lie about its memory.
class Lying extends Uint8Array {
  get byteLength() {
    return 1;
  }
}

const gone = new DataView(new ArrayBuffer(9));
structuredClone(gone.buffer, { transfer: [gone.buffer] });

// The bytes of a call, and what is written.
const BODIES = {
  'a pooled Buffer': [Buffer.from('pooled'), 'pooled'],
  'a large Buffer': [Buffer.alloc(2 ** 20, 'm'), 'm'.repeat(2 ** 20)],
  'shared memory': [new Uint8Array(new SharedArrayBuffer(2 ** 15)).fill(7), '\x07'.repeat(2 ** 15)],
  'a part of a Uint16Array': [new Uint16Array(9).fill(0x6162).subarray(2, 5), 'bababa'],
  'a class of its own': [new Lying(Buffer.from('lying')), 'lying'],
  'memory that is gone': [gone, ''],
};

table('the bytes of a call are copied at once', Object.entries(BODIES), ([body, expected]) =>
  inRoot({}, async (root) => {
    const size = body.buffer.byteLength;
    const written = promises.write(root, ['f'], body);
    assert.equal(body.buffer.byteLength, size, 'the memory of the caller');
    body.fill?.(1);
    await written;
    assertTree({ f: fresh(expected) });
  }),
);

test('memory of an earlier call brings no bytes into a later one, and is freed', () =>
  inRoot({}, async (root) => {
    const body = Buffer.alloc(2 ** 20, 'a');
    const short = Buffer.alloc(2 ** 20 - 5, 'b');
    const before = process.memoryUsage().arrayBuffers;
    const isKept = () => process.memoryUsage().arrayBuffers > before + 2 ** 22;
    await Promise.all(Array.from(Array(8), () => promises.write(root, ['f'], body)));
    await promises.write(root, ['f'], short);
    assertTree({ f: fresh(short) });
    for (let waits = 0; isKept(); ++waits) {
      assert.ok(waits < 300, 'the memory is never freed');
      await wait(100);
    }
  }));

const SIZES = [0, 1, 5000, 16_383, 16_384, 65_535, 65_536, 65_537, 0, ...Array(50).fill(3000)];

test('files of every size come back in their order, the small ones in blocks', () => {
  const files = Object.fromEntries(SIZES.map((size, n) => [`f${n}`, Buffer.alloc(size, n)]));
  return inRoot({ d: { ...files, e: { empty: {} } } }, async (root) => {
    const handle = synchronous.openRoot(place.root);
    const records = await promises.capture(root, [['d']]);
    assert.deepEqual(records, synchronous.capture(handle, [['d']]));
    const snapshot = await promises.snapshot(root, ['d']);
    assert.deepEqual(snapshot, synchronous.snapshot(handle, ['d']));
    synchronous.close(handle);
    const held = records.map(({ body }) => (body?.length < 16_384 ? body.buffer.byteLength : 0));
    assert.ok(Math.max(...held) <= 65_536, 'a small file does not hold all others');
  });
});
