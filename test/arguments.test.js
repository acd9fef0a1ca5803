'use strict';

// How each operation treats its arguments before it changes anything, what a handle stands for, and
// how the hook is installed, called and removed.

const assert = require('node:assert/strict');
const { execFileSync } = require('node:child_process');
const { once } = require('node:events');
const fs = require('node:fs');
const test = require('node:test');
const { setImmediate: turn } = require('node:timers/promises');
const { setFlagsFromString } = require('node:v8');
const { runInNewContext } = require('node:vm');
const { Worker } = require('node:worker_threads');
const { OLD, BYTES, lines, fresh, place, prepare, sandbox } = require('./support/harness.js');
const { assertTree, thrownBy, attempt, expectPassedOn } = require('./support/harness.js');
const { expectCall, each, cases } = require('./support/harness.js');
const { identityOf } = require('./support/scenarios.js');
const tarvek = require('./support/tarvek.js');

setFlagsFromString('--expose-gc');
const collect = runInNewContext('gc');

// Calls, the kinds of their arguments, and the order of the checks: in the last column, a failure
// stands before the kinds that cause it. The number of arguments is checked before all of them, and
// causes the first failure.
const operations = lines(`
  open|openRoot @                  path                                      outside path
  close                            external                                  storage external
  rootIdentity                     handle                                    closed handle
  openRelative|exists|read|list f  handle segments                           outside segments closed handle
  snapshot|ensureDirectory f       handle segments                           outside segments closed handle
  remove f                         handle segments                           outside segments closed handle
  write|create f NEW stage         handle segments body stage                outside handle segments storage stage body
  append f 0 0 NEW                 handle segments size size body            storage handle segments size body
  removeIfEquals f OLD             handle segments body                      storage handle segments body
  move|ensureRelativeSymlink f g   handle segments segments                  outside handle segments
  publishVerified fd:f f g OLD     handle descriptor segments segments body  outside handle descriptor segments body
  capture f                        handle paths                              outside handle paths
  exchangeForTest =f =g            handle name name                          outside handle name`);
const LAYOUT = { f: OLD, g: {} };
const calls = operations.flatMap(([words, kinds, order]) => {
  const [operations, ...args] = words.split(' ');
  const callsOf = operations.split('|').map((operation) => [operation, ...args].join(' '));
  return callsOf.map((call) => [call, LAYOUT, call, kinds.split(' '), order.split(' ')]);
});
const failureOf = (order, kind) =>
  order.slice(0, order.indexOf(kind)).findLast((word) => /^(outside|storage|closed)$/.test(word));

const WRONG_TYPES = [undefined, null, true, 1, 'f', Symbol('f'), 1n, {}, () => {}];
const without = (type) => WRONG_TYPES.filter((value) => typeof value !== type);
const BAD_NAMES = ['', '.', '..', 'a/b', '/', 'f/'];
const BAD_SEGMENTS = [...BAD_NAMES, 'a\\b', '\\', 'a\0b', '\0'];
const SEGMENTS = [
  ...[...WRONG_TYPES, { 0: 'f', length: 1 }],
  ...[[], [1], [['f']], [new String('f')], [undefined], Array(3)],
  ...BAD_SEGMENTS.flatMap((name) => [[name], ['f', name], [name, 'f']]),
];
const BAD_PATHS =
  '/ // /tmp/ //tmp /tmp//x /tmp/./x /tmp/../x /nowhere/.. /. /.. /tmp\\x /tmp/\0/x /x\0';
const CLOSED = {};
const BAD = {
  path: [...without('string'), '', 'f', ...BAD_PATHS.split(' ')],
  external: WRONG_TYPES,
  handle: [...WRONG_TYPES, CLOSED],
  segments: SEGMENTS,
  paths: [...WRONG_TYPES, [], ['f'], ...SEGMENTS.map((path) => [['f'], path])],
  body: [...WRONG_TYPES, [1], { length: 1 }, new ArrayBuffer(1)],
  stage: without('function'),
  size: [...without('number'), '1', new Number(1), -1, -1.5, -1e300],
  descriptor: [...without('number'), '0', -1, 2 ** 31],
  name: [...without('string'), ...BAD_NAMES],
};
const replaceAt = (args, index, value) => Object.assign([...args], { [index]: value });

// Every call of an operation with one or two bad arguments or a wrong number of them, as [what is
// wrong, failure, arguments].
function* wrongCalls(args, kinds, order) {
  for (const [i, kind] of kinds.entries()) {
    for (const [n, value] of BAD[kind].entries()) {
      yield [`argument ${i}, bad ${kind} ${n}`, failureOf(order, kind), replaceAt(args, i, value)];
    }
    for (const [j, other] of kinds.entries()) {
      const first = order.find((one) => one === kind || one === other);
      const both = replaceAt(replaceAt(args, i, BAD[kind].at(-1)), j, BAD[other].at(-1));
      yield [`${kind} and ${other}`, failureOf(order, first), both];
    }
  }
  const few = kinds.filter((kind) => kind !== 'stage').length - 1;
  for (const list of [[], args.slice(0, few), [...args, 1], Array(9).fill(Symbol('bad'))]) {
    yield [`${list.length} arguments`, order[0], list];
  }
}

each('a bad argument is refused before any hook or change', calls, (ctx, words, kinds, order) => {
  const closed = tarvek.openRoot(ctx.root);
  tarvek.close(closed);
  const [operation, good] = prepare(ctx, words);
  for (const [what, failure, args] of wrongCalls(good, kinds, order)) {
    const call = [operation, args.map((value) => (value === CLOSED ? closed : value))];
    const early = () => assert.fail('a hook was called');
    assert.doesNotThrow(() => expectCall(failure, ctx, call, early), what);
  }
});

// One row for each path that a call takes: callWith(ctx, path) is the call with another path there.
const withPaths = calls.flatMap(([, , words, kinds, order]) =>
  kinds.flatMap((kind, index) => {
    const callWith = (ctx, path) => {
      const [operation, args] = prepare(ctx, words);
      return [operation, replaceAt(args, index, kind === 'paths' ? [path] : path)];
    };
    const isPath = kind === 'paths' || kind === 'segments';
    return isPath ? [[`${words}, argument ${index}`, LAYOUT, callWith, order]] : [];
  }),
);
// Too long by one byte, with a last character of one to four bytes, and too long by far.
const ENDS = ['x', 'é', '語', '😀'].map((last) => 'x'.repeat(256 - Buffer.byteLength(last)) + last);
const TOO_LONG = [...ENDS, 'x'.repeat(10_000)];
const withGetter = (get) => Object.defineProperty(['f'], 0, { get });

each('a long name or a hostile getter in a path fails', withPaths, (ctx, callWith, order) => {
  for (const name of TOO_LONG) expectCall('storage', ctx, callWith(ctx, [name, 'leaf']));
  expectPassedOn((thrower) => attempt(ctx, callWith(ctx, withGetter(thrower))));
  const path = withGetter(() => tarvek.close(ctx.handle) ?? 'f');
  // The check of the handle sees it, or the walk does.
  expectCall(order.includes('closed') ? 'closed' : 'storage', ctx, callWith(ctx, path));
});

const ACCEPTED = [
  ...'..a ... .hidden -rf * ünï 語 😀 0 __proto__ constructor length'.split(' '),
  ...[' ', 'a b', '\n', '\x7f', ...[250, 251, 252, 255].map((length) => 'x'.repeat(length))],
  ...['é'.repeat(127), `${'x'.repeat(250)}é`, '😀'.repeat(63)],
];
const RAW = new Uint8Array([0, 1, 2, 253, 254, 255]);
const VIEWS = [
  ...[Buffer.from(RAW), Buffer.from(RAW).subarray(2, 5), RAW.subarray(1, 4)],
  ...[new Uint16Array(RAW.buffer, 2, 2), new DataView(RAW.buffer, 3, 2)],
];

cases('unusual names and bytes are accepted', LAYOUT, {
  'any other name, byte for byte; a lone surrogate becomes U+FFFD': ({ handle }) => {
    for (const name of [...ACCEPTED, 'a\udc00b']) tarvek.create(handle, ['d', name], BYTES.NEW);
    const made = [...ACCEPTED, 'a\ufffdb'].map((name) => [name, fresh(BYTES.NEW)]);
    assertTree({ ...LAYOUT, d: fresh(Object.fromEntries(made)) });
    for (const name of ACCEPTED) assert.deepEqual(tarvek.read(handle, ['d', name]), BYTES.NEW);
  },
  'a typed array or DataView, as the bytes of its own range only': ({ handle }) => {
    for (const view of VIEWS) {
      const bytes = Buffer.from(view.buffer, view.byteOffset, view.byteLength);
      tarvek.write(handle, ['n'], view);
      assert.deepEqual(tarvek.read(handle, ['n']), bytes);
      tarvek.append(handle, ['n'], 0, 0, view);
      tarvek.removeIfEquals(handle, ['n'], new Uint8Array(Buffer.concat([bytes, bytes])));
    }
    assertTree(LAYOUT);
  },
});

const NESTED = { a: { b: { c: OLD } } };

cases('handles', NESTED, {
  'rootIdentity returns its BigInts even if the root is replaced': ({ handle, root, base }) => {
    const identity = Object.entries(tarvek.rootIdentity(handle));
    assert.deepEqual(identity, Object.entries(identityOf(root)));
    fs.renameSync(root, `${base}/elsewhere`);
    fs.mkdirSync(root);
    assert.deepEqual(Object.entries(tarvek.rootIdentity(handle)), identity);
    assert.equal(tarvek.exists(handle, ['a']), true, 'the handle follows its directory');
  },
  'a second close does not close a descriptor that took the same number': (ctx) => {
    const handle = tarvek.openRoot(ctx.root);
    assert.equal(tarvek.close(handle), undefined);
    const reused = ctx.open(ctx.root);
    assert.equal(tarvek.close(handle), undefined);
    assert.equal(fs.fstatSync(reused).isDirectory(), true);
    expectCall('closed', ctx, ['rootIdentity', [handle]]);
  },
});

// Calls the hook at a, b and c.
const exists = ({ handle }) => tarvek.exists(handle, ['a', 'b', 'c']);

cases('setTestHook', NESTED, {
  'the hook and the stage get one argument, and the global object as this': (ctx) => {
    const calls = [];
    const callback = function (...args) {
      calls.push([this === globalThis, JSON.stringify(args)]);
    };
    assert.equal(tarvek.setTestHook(callback, 'ignored'), undefined);
    assert.equal(tarvek.write(ctx.handle, ['n'], BYTES.NEW, callback), undefined);
    assert.deepEqual(calls.slice(0, 2), [
      [true, '[{"point":"pre-effect","segment":"n","index":0}]'],
      [true, '["after-temp-write"]'],
    ]);
  },
  'no argument, undefined and null remove the hook, and so does a refused argument': (ctx) => {
    for (const args of [[], [undefined], [null], [42], ['f'], [{}], [true], [Symbol('f')], [1n]]) {
      tarvek.setTestHook(assert.fail);
      const { thrown } = thrownBy(() => tarvek.setTestHook(...args));
      assert.equal(thrown?.code, args[0] == null ? undefined : 'FILESYSTEM_FAILURE');
      exists(ctx);
    }
  },
  'the hook can be replaced and removed while it runs': (ctx) => {
    const fired = [];
    const second = () => fired.push('second') && tarvek.setTestHook();
    tarvek.setTestHook(() => fired.push('first') && tarvek.setTestHook(second));
    exists(ctx);
    assert.deepEqual(fired, ['first', 'second']);
  },
});

// A WeakRef that was just made or read keeps its target until the event loop turns.
async function collected() {
  await turn();
  await turn(collect());
}

test('a hook is collected after it was replaced or removed, and not before', async () => {
  const fired = [];
  const set = (name) => {
    const hook = () => fired.push(name);
    tarvek.setTestHook(hook);
    return new WeakRef(hook);
  };
  const hooks = ['first', 'second'].map(set);
  await collected();
  tarvek.close(tarvek.openRoot(place.base));
  assert.equal(fired[0], 'second');
  assert.equal(hooks[0].deref(), undefined, 'the replaced hook is gone');
  tarvek.setTestHook();
  await collected();
  assert.equal(hooks[1].deref(), undefined, 'the removed hook is gone');
});

const MODULE = require.resolve('./support/tarvek.js');

test('a hook is not called in another thread', async (t) => {
  t.after(() => tarvek.setTestHook());
  tarvek.setTestHook(assert.fail);
  const workerData = [MODULE, place.base];
  const script = `
    const [module, base] = require('node:worker_threads').workerData;
    require(module).openRoot(base);`;
  const [status] = await once(new Worker(script, { eval: true, workerData }), 'exit');
  assert.equal(status, 0);
});

test('descriptor 0 works like any other', () => {
  const script = `
    const assert = require('node:assert');
    const fs = require('node:fs');
    const [, module, root] = process.argv;
    const tarvek = require(module);
    const handle = tarvek.openRoot(root);
    fs.closeSync(0);
    const inner = tarvek.openRelative(handle, ['d']);
    assert.equal(fs.fstatSync(0).isDirectory(), true);
    assert.equal(tarvek.exists(inner, ['f']), true);
    tarvek.close(inner);
    assert.equal(tarvek.exists(handle, ['d']), true);
    assert.equal(fs.openSync(root + '/d/f'), 0);
    tarvek.publishVerified(handle, 0, ['d', 'f'], ['p'], Buffer.from('${OLD}'));`;
  sandbox({ d: { f: OLD } }, ({ root }) => {
    execFileSync(process.execPath, ['-e', script, MODULE, root]);
    assertTree({ d: {}, p: OLD });
  });
});
