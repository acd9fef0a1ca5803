'use strict';

// What the steps of scripts/check-package.js share: where the tools are, and how a command is run.

const { spawnSync } = require('node:child_process');
const path = require('node:path');

const root = path.join(__dirname, '..', '..');
const tools = path.join(root, 'build', 'check-package');
const tool = (name) => path.join(tools, 'node_modules', name);

// The oldest supported versions of 18 and 20, and the newest of the others.
const NODES = ['node-18', 'node-20', 'node-22', 'node-24', 'node-26'];
const nodeOf = (name) => tool(`@runtime/${name}/bin/node`);
const bun = tool('@runtime/bun/bin/bun');
const deno = tool('@runtime/deno/deno');

function run(command, args, options) {
  const ran = spawnSync(command, args, { cwd: root, encoding: 'utf8', ...options });
  if (ran.status === 0) return ran.stdout;
  const line = [command, ...args].join(' ');
  const ending = ran.error ?? ran.signal ?? `exit status ${ran.status}`;
  throw new Error(`failed: ${line}\n${ending}\n${ran.stdout ?? ''}${ran.stderr ?? ''}`);
}

// The output of a program that must fail. It must exit by itself and not by a signal.
function runRefused(command, args, options) {
  const { status, signal, stdout, stderr } = spawnSync(command, args, {
    encoding: 'utf8',
    ...options,
  });
  if (status > 0) return stderr;
  const line = [command, ...args].join(' ');
  throw new Error(`ended with ${signal ?? status}: ${line}\n${stdout}${stderr}`);
}

async function step(what, body) {
  const start = performance.now();
  const result = await body();
  console.log(`ok  ${what}  ${((performance.now() - start) / 1000).toFixed(1)} s`);
  return result;
}

module.exports = { root, tools, tool, NODES, nodeOf, bun, deno, run, runRefused, step };
