'use strict';

const assert = require('node:assert/strict');
const { prepare, assertTree, withHook, each } = require('./support/harness.js');
const { scenarios } = require('./support/scenarios.js');
const tarvek = require('./support/tarvek.js');

const rows = scenarios.flatMap((scenario) => [
  [`${scenario.name}, with a hook`, scenario.before, scenario, scenario.hooks],
  [`${scenario.name}, without`, scenario.before, scenario, []],
]);

each('operations do what they should', rows, (ctx, { call, check, after }, hooks) => {
  const fired = [];
  const hook = ({ point, segment, index }) => void fired.push([point, segment, index]);
  const [operation, args] = prepare(ctx, call);
  if (hooks.length > 0) ctx.stage = (stage) => fired.push([stage]);
  const run = () => tarvek[operation](...args);
  const result = hooks.length > 0 ? withHook(hook, run) : run();
  check(result, ctx);
  assertTree(after);
  assert.deepEqual(fired, hooks, 'the points that fired');
});
