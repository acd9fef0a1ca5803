'use strict';

const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const test = require('node:test');

const cwd = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-examples-')));
fs.mkdirSync(path.join(cwd, 'real', 'd'), { recursive: true });
fs.symlinkSync('real', path.join(cwd, 'alias'));
fs.symlinkSync('real', path.join(cwd, 'real', 'd', 'link'));
test.after(() => fs.rmSync(cwd, { recursive: true }));

const env = { ...process.env, TMPDIR: cwd, NODE_TEST_CONTEXT: undefined };

function runNode(...args) {
  return spawnSync(process.execPath, args, { cwd, env, encoding: 'utf8', timeout: 60_000 });
}

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

for (const [command, status, output] of RUNS) {
  test(`the example ${command}`, () => {
    const [name, ...args] = command.split(' ');
    const run = runNode(require.resolve(`../examples/${name}.js`), ...args);
    assert.match(run.stdout + run.stderr, output);
    assert.equal(run.status, status);
    assert.deepEqual(fs.readdirSync(cwd).sort(), ['alias', 'real'], 'what it made is gone');
  });
}
