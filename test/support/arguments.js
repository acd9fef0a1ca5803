'use strict';

// Wrong arguments for every operation, in the way of a caller who makes mistakes.

const { inspect } = require('node:util');
const { OLD } = require('./layouts.js');
const { operations } = require('./operations.js');

const WRONG_TYPES = [undefined, null, true, 1, 'f', Symbol('f'), 1n, {}, () => {}];
const allBut = (type) => WRONG_TYPES.filter((value) => typeof value !== type);
const BAD_NAMES = ['', '.', '..', 'a/b', 'f/'];
const namesWith = (bad) => [[bad], ['f', bad], [bad, 'f']];
const BAD_SEGMENTS = [...BAD_NAMES, 'a\\b', 'a\0b'].flatMap(namesWith);
const ENDLESS = [];
ENDLESS.length = 2 ** 32 - 1;
const NOT_LISTS_OF_NAMES = [{ 0: 'f', length: 1 }, [], [1], [['f']], new Proxy(['f'], {}), ENDLESS];
const SEGMENTS = [...WRONG_TYPES, ...NOT_LISTS_OF_NAMES, ...BAD_SEGMENTS];
const PATHS = '/ // /tmp/ //tmp /tmp//x /tmp/./x /tmp/../x /nowhere/.. /. /tmp\\x /tmp/\0/x /x\0';

// Stands for a closed handle. Each sandbox has one of its own in its place.
const CLOSED = { [inspect.custom]: () => 'a closed handle' };

// The bad values of each kind of argument. `external` is a handle that may be closed.
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
function failureOf(order, ...kinds) {
  const first = order.findIndex((word) => kinds.includes(word));
  const before = order.slice(0, first).filter((word) => FAILURE.test(word));
  return before.at(-1);
}

function replaceAt(args, index, value) {
  const replaced = [...args];
  replaced[index] = value;
  return replaced;
}

// Each bad value at one argument. Then one of them with a bad value at each other argument: the check
// that comes first decides.
function wrongAt(index, args, kinds, order) {
  const kind = kinds[index];
  const alone = BAD[kind].map((value) => {
    const failure = failureOf(order, kind);
    return { what: inspect(value), failure, args: replaceAt(args, index, value) };
  });
  const wrong = alone.at(-1).args;
  const together = kinds.map((other, j) => {
    const failure = failureOf(order, kind, other);
    return { what: `with a bad ${other}`, failure, args: replaceAt(wrong, j, BAD[other].at(-1)) };
  });
  return [...alone, ...together];
}

// A wrong number of arguments causes the first failure.
function wrongCounts(args, kinds, [failure]) {
  const required = kinds.filter((kind) => kind !== 'stage').length;
  const lists = [[], args.slice(0, required - 1), [...args, 1]];
  return lists.map((list) => ({ what: `${list.length} arguments`, failure, args: list }));
}

// The rows [name, layout, call, kinds, order] of all operations with their arguments.
const LAYOUT = { f: OLD, g: {} };
const called = [...operations.values()].filter(({ takes, refuses }) => takes && refuses);
const calls = called.map(({ call, takes, refuses }) => {
  return [call, LAYOUT, call, takes.split(' '), refuses.split(' ')];
});

// The rows [name, layout, call, wrong]: wrong(args) returns a list of { what, failure, args }.
const wrongCalls = calls.flatMap(([name, layout, call, kinds, order]) => {
  const perArgument = kinds.map((kind, index) => {
    const wrong = (args) => wrongAt(index, args, kinds, order);
    return [`${name}, bad ${kind} as argument ${index}`, layout, call, wrong];
  });
  const counting = (args) => wrongCounts(args, kinds, order);
  return [...perArgument, [`${name}, a wrong number of arguments`, layout, call, counting]];
});

module.exports = { CLOSED, calls, replaceAt, wrongCalls };
