'use strict';

// What each operation makes of the values that it is called with, before it touches anything.

const assert = require('node:assert/strict');
const { OLD, BYTES, THROWN, lines, fresh, prepare, assertTree } = require('./support/harness.js');
const { attempt, thrower, expectThrown, expectCall, each, cases } = require('./support/harness.js');
const tarvek = require('./support/tarvek.js');

// A call, what its arguments are, and the order in which bad ones are noticed, behind the failure
// that they give. A wrong count comes before all of them, with the first failure.
const ARGS = 'outside segments closed handle';
const operations = lines(`
  open @                            path                                      outside path
  openRoot @                        path                                      outside path
  rootIdentity                      handle                                    closed handle
  openRelative f                    handle segments                           ${ARGS}
  exists f                          handle segments                           ${ARGS}
  read f                            handle segments                           ${ARGS}
  list f                            handle segments                           ${ARGS}
  snapshot f                        handle segments                           ${ARGS}
  ensureDirectory f                 handle segments                           ${ARGS}
  remove f                          handle segments                           ${ARGS}
  write f NEW stage                 handle segments body stage                outside handle segments storage stage body
  create f NEW stage                handle segments body stage                outside handle segments storage stage body
  append f 0 0 NEW                  handle segments size size body            storage handle segments size body
  removeIfEquals f OLD              handle segments body                      storage handle segments body
  move f g                          handle segments segments                  outside handle segments
  ensureRelativeSymlink f g         handle segments segments                  outside handle segments
  publishVerified fd:f f g OLD      handle descriptor segments segments body  outside handle descriptor segments body
  capture f                         handle paths                              outside handle paths
  exchangeForTest =f =g             handle name name                          outside handle name`).map(
  ([words, kinds, order]) => [words, kinds.split(' '), order.split(' ')],
);
const failureOf = (order, kind) =>
  order.slice(0, order.indexOf(kind)).findLast((word) => /^(outside|storage|closed)$/.test(word));

const LAYOUT = { f: OLD, g: {} };
const NEITHER = [undefined, null, true, 1, 'f', Symbol('f'), 1n, {}, () => {}];
const without = (type) => NEITHER.filter((value) => typeof value !== type);
const NAMES = ['', '.', '..', 'a/b', '/', 'f/'];
const NO_ARRAYS = [...NEITHER, { 0: 'f', length: 1 }];
const NO_PATHS = [[], [1], [['f']], [new String('f')], [undefined], Array(3)];
const NO_NAMES = [...NAMES, 'a\\b', '\\', 'a\0b', '\0'];
const BAD_PATHS = NO_NAMES.flatMap((name) => [[name], ['f', name], [name, 'f']]);
const SEGMENTS = [...NO_ARRAYS, ...NO_PATHS, ...BAD_PATHS];
const ABSOLUTE =
  '/ // /tmp/ //tmp /tmp//x /tmp/./x /tmp/../x /nowhere/.. /. /.. /tmp\\x /tmp/\0/x /x\0';
const CLOSED = {};
const BAD = {
  path: [...without('string'), '', 'f', ...ABSOLUTE.split(' ')],
  handle: [...NEITHER, CLOSED],
  segments: SEGMENTS,
  paths: [...NEITHER, [], ['f'], ...SEGMENTS.map((path) => [['f'], path])],
  body: [...NEITHER, [1], { length: 1 }, new ArrayBuffer(1)],
  stage: without('function'),
  size: [...without('number'), '1', new Number(1), -1, -1.5, -1e300],
  descriptor: [...without('number'), '0', -1, 2 ** 31],
  name: [...without('string'), ...NAMES],
};
const put = (args, index, value) => Object.assign([...args], { [index]: value });

// Every wrong call of an operation, as [what is wrong, failure, arguments].
function* wrongCalls(args, kinds, order) {
  for (const [i, kind] of kinds.entries()) {
    for (const [n, value] of BAD[kind].entries()) {
      yield [`argument ${i}, bad ${kind} ${n}`, failureOf(order, kind), put(args, i, value)];
    }
    for (const [j, other] of kinds.entries()) {
      const first = order.find((one) => one === kind || one === other);
      const both = put(put(args, i, BAD[kind].at(-1)), j, BAD[other].at(-1));
      yield [`${kind} and ${other}`, failureOf(order, first), both];
    }
  }
  const few = kinds.filter((kind) => kind !== 'stage').length - 1;
  for (const some of [[], args.slice(0, few), [...args, 1], Array(9).fill(Symbol('bad'))]) {
    yield [`${some.length} arguments`, order[0], some];
  }
}

const calls = operations.map(([words, ...rest]) => [words, LAYOUT, words, ...rest]);

each('a wrong argument is all that matters', calls, (ctx, words, kinds, order) => {
  const closed = tarvek.openRoot(ctx.root);
  tarvek.close(closed);
  const [operation, good] = prepare(ctx, words);
  for (const [what, failure, args] of wrongCalls(good, kinds, order)) {
    const call = [operation, args.map((value) => (value === CLOSED ? closed : value))];
    const early = () => assert.fail('a hook was called');
    assert.doesNotThrow(() => expectCall(failure, ctx, call, early), what);
  }
});

// The calls, by the place of a path in them: callWith(path) is the call with it.
const withPaths = operations.flatMap(([words, kinds, order]) =>
  kinds.flatMap((kind, index) => {
    const nested = kind === 'paths';
    if (!nested && kind !== 'segments') return [];
    const callWith = (ctx, path) => {
      const [operation, args] = prepare(ctx, words);
      return [operation, put(args, index, nested ? [path] : path)];
    };
    return [[`${words}, argument ${index}`, LAYOUT, callWith, order]];
  }),
);
const got = (get) => Object.defineProperty(['f'], 0, { get });

each('what an element getter throws is what is caught', withPaths, (ctx, callWith) => {
  for (const value of THROWN) expectThrown(value, attempt(ctx, callWith(ctx, got(thrower(value)))));
});

each(
  'a getter closes the handle: seen at once, or by the walk',
  withPaths,
  (ctx, callWith, order) => {
    const path = got(() => tarvek.close(ctx.handle) ?? 'f');
    expectCall(order.includes('closed') ? 'closed' : 'storage', ctx, callWith(ctx, path));
  },
);

each('a name is too long for the file system', withPaths, (ctx, callWith) =>
  expectCall('storage', ctx, callWith(ctx, ['x'.repeat(256), 'leaf'])),
);

const ACCEPTED = [
  ...'..a ... .hidden -rf * ünï 語 😀 0 __proto__ constructor length'.split(' '),
  ' ',
];
ACCEPTED.push('a b', '\n', '\x7f', ...[250, 251, 252, 255].map((length) => 'x'.repeat(length)));
ACCEPTED.push('é'.repeat(127), `${'x'.repeat(250)}é`, '😀'.repeat(63));
const RAW = new Uint8Array([0, 1, 2, 253, 254, 255]);
const VIEWS = [
  ...[Buffer.from(RAW), Buffer.from(RAW).subarray(2, 5), RAW.subarray(1, 4)],
  ...[
    new Uint16Array(RAW.buffer, 2, 2),
    new DataView(RAW.buffer, 3, 2),
    new DataView(RAW.buffer, 6),
  ],
];

cases('accepted', LAYOUT, {
  'any other name, byte for byte': ({ handle }) => {
    for (const name of ACCEPTED) tarvek.create(handle, ['d', name], Buffer.from(name));
    const made = Object.fromEntries(ACCEPTED.map((name) => [name, fresh(name)]));
    assertTree({ ...LAYOUT, d: fresh(made) });
    for (const name of ACCEPTED) assert.equal(String(tarvek.read(handle, ['d', name])), name);
  },
  'a lone surrogate, as the replacement character': ({ handle }) => {
    tarvek.create(handle, ['\ud800', 'a\udc00b'], BYTES.NEW);
    assertTree({ ...LAYOUT, '\ufffd': fresh({ 'a\ufffdb': fresh(BYTES.NEW) }) });
  },
  'every view of bytes as a Buffer, for just its own range': ({ handle }) => {
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
