'use strict';

// Runs the programs, the examples and what the README shows, in every supported runtime. The example of
// a test is left out: Bun and Deno run tests with commands of their own.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const { NODES, nodeOf, bun, deno, tool, run, step } = require('./support.js');

const RUNTIMES = [
  ...NODES.map((name) => ({ name, command: [nodeOf(name)] })),
  { name: 'bun', command: [bun] },
  { name: 'deno', command: [deno, 'run', '--allow-all', '--no-lock'] },
];
const EXAMPLES = 'node_modules/tarvek/examples';
// With their arguments.
const PROGRAMS = [
  ['commonjs.cjs'],
  ['esm.mjs'],
  ['workers.cjs'],
  ['promises.cjs'],
  ['promises.mjs'],
  [`${EXAMPLES}/tour.js`],
  [`${EXAMPLES}/journal.js`],
  [`${EXAMPLES}/release.js`],
  [`${EXAMPLES}/server.js`],
  ['node_modules/tarvek/check/command.js', 'check', EXAMPLES],
];

// The first example of the README in its two forms, as a reader copies them, and what they print.
function copyReadme(folder) {
  const readme = fs.readFileSync(path.join(folder, 'node_modules', 'tarvek', 'README.md'), 'utf8');
  const [, section] = /^## A first file$(.*?)^## /ms.exec(readme) ?? assert.fail('no such section');
  const blocks = [...section.matchAll(/^```\w+\n(.*?)^```$/gms)].map(([, text]) => text);
  const [commonjs, esm, printed] = blocks;
  fs.writeFileSync(path.join(folder, 'readme.cjs'), commonjs);
  fs.writeFileSync(path.join(folder, 'readme.mjs'), esm);
  return printed;
}

async function runEverywhere(folder) {
  const printed = copyReadme(folder);
  for (const { name, command } of RUNTIMES) {
    const { version } = require(tool(`@runtime/${name}/package.json`));
    await step(`${name}, ${version.replace('v', '')}`, () => {
      const [program, ...args] = command;
      // A runtime may leave a cache in its home, and a failing program what it created.
      const env = { ...process.env, HOME: folder, TMPDIR: folder };
      const runFile = (...file) => run(program, [...args, ...file], { cwd: folder, env });
      for (const words of PROGRAMS) runFile(...words);
      for (const file of ['readme.cjs', 'readme.mjs']) assert.equal(runFile(file), printed, file);
    });
  }
}

module.exports = { runEverywhere };
