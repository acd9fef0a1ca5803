'use strict';

// Wrong arguments for every operation, in the way of a caller who makes mistakes.

const { inspect } = require('node:util');
const { OLD } = require('./layouts.js');
const { operations } = require('./operations.js');

const WRONG_TYPES = [undefined, null, true, 1, 'f', Symbol('f'), 1n, {}, () => {}];
const allBut = (type) => WRONG_TYPES.filter((value) => typeof value !== type);
const BAD_NAMES = ['', '.', '..', 'a/b', '/', 'f/'];
const BAD_SEGMENT = [...BAD_NAMES, 'a\\b', '\\', 'a\0b', '\0'];
const ENDLESS = [];
ENDLESS.length = 2 ** 32 - 1;
const SEGMENTS = [
  ...WRONG_TYPES,
  { 0: 'f', length: 1 },
  [],
  [1],
  [['f']],
  [new String('f')],
  [undefined],
  new Proxy(['f'], {}),
  Array(3),
  ENDLESS,
  ...BAD_SEGMENT.flatMap((name) => [[name], ['f', name], [name, 'f']]),
];
const PATHS =
  '/ // /tmp/ //tmp /tmp//x /tmp/./x /tmp/../x /nowhere/.. /. /.. /tmp\\x /tmp/\0/x /x\0';

// A closed handle. Each sandbox has one of its own in its place.
const CLOSED = { [inspect.custom]: () => 'a closed handle' };

const BAD = {
  path: [...allBut('string'), '', 'f', ...PATHS.split(' ')],
  external: WRONG_TYPES,
  handle: [...WRONG_TYPES, CLOSED],
  segments: SEGMENTS,
  paths: [...WRONG_TYPES, [], ['f'], ENDLESS, ...SEGMENTS.map((segments) => [['f'], segments])],
  body: [...WRONG_TYPES, [1], { length: 1 }, new ArrayBuffer(1)],
  stage: allBut('function'),
  size: [...allBut('number'), '1', new Number(1), -1, -1.5, -1e300],
  descriptor: [...allBut('number'), '0', -1, 2 ** 31],
  name: [...allBut('string'), ...BAD_NAMES],
};

// The order of the checks is a list of kinds. A failure stands before the kinds that cause it.
const FAILURE = /^(outside|storage|closed)$/;
function failureOf(order, kind) {
  const before = order.slice(0, order.indexOf(kind)).filter((word) => FAILURE.test(word));
  return before.at(-1);
}

function replaceAt(args, index, value) {
  const replaced = [...args];
  replaced[index] = value;
  return replaced;
}

// One bad value in the place of an argument.
function* withOneBad(args, index, kind, order) {
  for (const value of BAD[kind]) {
    yield {
      what: inspect(value),
      failure: failureOf(order, kind),
      args: replaceAt(args, index, value),
    };
  }
}

// Two bad values: the check that comes first decides.
function* withTwoBad(args, index, kinds, order) {
  const kind = kinds[index];
  const wrong = replaceAt(args, index, BAD[kind].at(-1));
  for (const [j, other] of kinds.entries()) {
    const first = order.find((one) => one === kind || one === other);
    yield {
      what: `with a bad ${other}`,
      failure: failureOf(order, first),
      args: replaceAt(wrong, j, BAD[other].at(-1)),
    };
  }
}

// A wrong number of arguments causes the first failure.
function* withWrongCount(args, kinds, order) {
  const required = kinds.filter((kind) => kind !== 'stage').length;
  const lists = [[], args.slice(0, required - 1), [...args, 1], Array(9).fill(Symbol('bad'))];
  for (const list of lists) {
    yield { what: `${list.length} arguments`, failure: order[0], args: list };
  }
}

// The rows [name, layout, call, kinds, order] of all operations with their arguments.
const LAYOUT = { f: OLD, g: {} };
const called = [...operations.values()].filter(({ takes, refuses }) => takes && refuses);
const calls = called.map(({ call, takes, refuses }) => {
  return [call, LAYOUT, call, takes.split(' '), refuses.split(' ')];
});

// The rows [name, layout, call, wrong]: wrong(args) yields every { what, failure, args }.
const wrongCalls = calls.flatMap(([name, layout, call, kinds, order]) => {
  const perArgument = kinds.map((kind, index) => {
    function* wrong(args) {
      yield* withOneBad(args, index, kind, order);
      yield* withTwoBad(args, index, kinds, order);
    }
    return [`${name}, bad ${kind} as argument ${index}`, layout, call, wrong];
  });
  const counting = (args) => withWrongCount(args, kinds, order);
  return [...perArgument, [`${name}, a wrong number of arguments`, layout, call, counting]];
});

module.exports = { CLOSED, calls, replaceAt, wrongCalls };
