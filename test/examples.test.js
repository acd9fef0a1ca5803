'use strict';

const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const { assertTree, sandbox, table } = require('./support/harness.js');
const { symlink } = require('./support/layouts.js');

const LAYOUT = { alias: symlink('real'), real: { d: { link: symlink('real') } } };

// The example with its arguments, its exit status, and what it prints.
const RUNS = [
  ['journal', 0, /recovered: \[{"amount":5},{"amount":-2},{"amount":8}\].*OPTIMISTIC_CONFLICT/s],
  ['release', 0, /: 1\.1\.0, app.*refused.*: 1\.1\.0.*: 00000003\ncurrent: 1\.0\.0.*staged: 0\n/s],
  ['race-test', 0, /pass 15\n.*fail 0\n/s],
  ['server', 0, /come back: true\n.*: 409 .*: 422 .*: 403 .*: 404\n$/],
  ['backup', 0, /contents and modes: true\n.*OPTIMISTIC_CONFLICT\n.*damaged or incomplete\n$/],
  ['tour', 0, /Left out: .*! attack succeeds.*All \d+ steps went as they should.*check.*server/s],
  ['tour alias', 0, /alias leads there through a symlink.* d\/link: symlink/s],
  ['tour nowhere', 1, /cannot start at .*nowhere: there is no such directory/],
];
const runs = RUNS.map(([words, ...rest]) => [words, words.split(' '), ...rest]);

table('the example', runs, ([name, ...args], status, output) =>
  sandbox(LAYOUT, ({ root: cwd }) => {
    const file = require.resolve(`../examples/${name}.js`);
    // Without NODE_TEST_CONTEXT, the tests of an example do not report to this process.
    const env = { ...process.env, NODE_TEST_CONTEXT: '', TMPDIR: cwd, UV_THREADPOOL_SIZE: '2' };
    const options = { cwd, env, encoding: 'utf8', timeout: 60_000 };
    const run = spawnSync(process.execPath, [file, ...args], options);
    assert.match(run.stdout + run.stderr, output);
    assert.equal(run.status, status);
    // What it made is gone.
    assertTree(LAYOUT);
  }),
);
