'use strict';

// A runner is one subject set up for one workload: a directory of its own with the workload's files,
// and the calls that it makes there.

const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { isDeepStrictEqual } = require('node:util');
const writeFileAtomic = require('write-file-atomic');
const tarvek = require('..');
const javascriptOnly = require('./javascript-only.js');
const nodeFs = require('./node-fs.js');
const { PER_FILE } = require('./workloads.js');

const buildDirectory = path.join(__dirname, '..', 'build', 'bench');

function buildFloor() {
  for (const args of [
    ['-S', __dirname, '-B', buildDirectory],
    ['--build', buildDirectory],
  ]) {
    execFileSync('cmake', args, { stdio: ['ignore', 'ignore', 'inherit'] });
  }
}

const subjects = {
  tarvek,
  [PER_FILE]: tarvek,
  'node:fs': nodeFs,
  'JavaScript only': javascriptOnly,
  'write-file-atomic': {
    ...nodeFs,
    write: (root, names, body) => writeFileAtomic.sync(path.join(root, ...names), body),
  },
};

// Written out, since spreading an argument list costs time that a program does not spend.
const byCount = [
  (act, handle) => act(handle),
  (act, handle, call) => act(handle, call[0]),
  (act, handle, call) => act(handle, call[0], call[1]),
  (act, handle, call) => act(handle, call[0], call[1], call[2]),
  (act, handle, call) => act(handle, call[0], call[1], call[2], call[3]),
];

function functionFor(api, operation) {
  if (operation === 'openRoot') return (_, at) => api.close(api.openRoot(at));
  if (operation === 'openRelative') return (handle, to) => api.close(api.openRelative(handle, to));
  return api[operation];
}

// The fields of `Call` in floor.cc.
function floorCall(operation, call) {
  if (operation === 'openRoot') return [call[0].split('/').slice(1), [], '', '', 0];
  const [first, second = []] = (operation === 'capture' ? call[0] : call).filter(Array.isArray);
  const body = call.find(Buffer.isBuffer)?.toString('latin1') ?? '';
  const linkText = [...first.slice(1).map(() => '..'), ...second].join('/');
  return [first, second, body, linkText, Number(call[0])];
}

function writeTree(at, content) {
  if (typeof content !== 'object' || Buffer.isBuffer(content)) return fs.writeFileSync(at, content);
  fs.mkdirSync(at, { recursive: true });
  for (const [name, inner] of Object.entries(content)) writeTree(path.join(at, name), inner);
}

// Everything beneath `at`, as a value that can be compared.
function readTree(at) {
  const stat = fs.lstatSync(at);
  if (stat.isSymbolicLink()) return fs.readlinkSync(at);
  if (!stat.isDirectory()) return fs.readFileSync(at, 'latin1');
  return fs.readdirSync(at).map((name) => [name, readTree(path.join(at, name))]);
}

// How many bytes or names a result holds. The floor returns nothing else.
function countOf(result) {
  if (Buffer.isBuffer(result)) return result.length;
  if (typeof result !== 'object') return typeof result === 'string' ? 1 : 0;
  const parts = 'type' in result ? [result.body] : Object.values(result);
  return parts.reduce((sum, part) => sum + countOf(part), 0);
}

function floorFunctions(workload, root, calls) {
  const floor = require(path.join(buildDirectory, 'floor.node'));
  const fd = fs.openSync(root);
  const converted = calls.map((call) => floorCall(workload.operation, call));
  const plan = floor.prepare(workload.floor, fd, converted);
  const run = (times) => floor.run(plan, times);
  return { run, results: () => run(1), close: () => fs.closeSync(fd) };
}

function apiFunctions(api, { operation }, root, calls) {
  const handle = api.openRoot(root);
  const act = functionFor(api, operation);
  const make = byCount[calls[0].length];
  const run = (times) => {
    for (let left = times; left > 0; --left) for (const call of calls) make(act, handle, call);
  };
  const results = () => calls.map((call) => make(act, handle, call));
  return { run, results, close: () => api.close(handle) };
}

// Returns:
//   prepare()   writes the workload's files if they are not there; called before every round
//   run(times)  makes all calls `times` times
//   results()   makes all calls once and returns their results, for comparison
//   units       a round's time is divided by this: the calls in `run(1)`
function makeRunner(name, workload, base) {
  const root = path.join(base, workload.shared ? 'shared' : name.replace(/\W/g, '-'));
  const place = { at: (...names) => path.join(root, ...names) };
  let written = fs.existsSync(root);
  const prepare = () => {
    if (written && !workload.once) return;
    fs.mkdirSync(root, { recursive: true });
    for (const entry of fs.readdirSync(root)) fs.rmSync(place.at(entry), { recursive: true });
    writeTree(root, workload.layout());
    written = true;
  };
  prepare();
  // With these units its time compares with that of the large tree, file for file.
  const smallTree = name === PER_FILE;
  const calls = smallTree ? [[[['small']]]] : workload.calls(place);
  const units = smallTree ? 1000 / workload.files : calls.length;
  const functions =
    name === 'floor'
      ? floorFunctions(workload, root, calls)
      : apiFunctions(subjects[name], workload, root, calls);
  return { name, root, prepare, units, once: workload.once, ...functions };
}

// Throws unless every runner returns the same and leaves the same files as the first one.
function requireSameOutcome(runners, { shared, name }) {
  const outcomes = runners.map((runner) => {
    runner.prepare();
    const results = runner.results();
    return { name: runner.name, results, left: shared ? undefined : readTree(runner.root) };
  });
  const [expected, ...others] = outcomes;
  const count = countOf(expected.results);
  for (const { name: subject, results, left } of others) {
    const same =
      subject === 'floor' ? results === count : isDeepStrictEqual(results, expected.results);
    if (subject === PER_FILE || (same && isDeepStrictEqual(left, expected.left))) continue;
    throw new Error(`${name}: ${subject} does not do what ${expected.name} does`);
  }
}

module.exports = {
  buildDirectory,
  buildFloor,
  makeRunner,
  requireSameOutcome,
  subjects,
  writeTree,
};
