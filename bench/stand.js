'use strict';

// A subject at a workload: its own place on disk, laid out, and the calls that it makes there.

const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { isDeepStrictEqual } = require('node:util');
const writeFileAtomic = require('write-file-atomic');
const tarvek = require('..');
const careful = require('./careful.js');
const plain = require('./plain.js');
const { PER_FILE } = require('./workloads.js');

// The floor is built here, since nothing else needs it.
const home = path.join(__dirname, '..', 'build', 'bench');
for (const args of [
  ['-S', __dirname, '-B', home],
  ['--build', home],
]) {
  execFileSync('cmake', args, { stdio: ['ignore', 'ignore', 'inherit'] });
}
const floor = require(path.join(home, 'floor.node'));

const subjects = {
  tarvek,
  'node:fs': plain,
  'JavaScript only': careful,
  'write-file-atomic': {
    ...plain,
    write: (root, names, body) => writeFileAtomic.sync(path.join(root, ...names), body),
  },
};

// As a program would write the call, without a list of arguments to spread.
const byCount = [
  (act, handle) => act(handle),
  (act, handle, call) => act(handle, call[0]),
  (act, handle, call) => act(handle, call[0], call[1]),
  (act, handle, call) => act(handle, call[0], call[1], call[2]),
  (act, handle, call) => act(handle, call[0], call[1], call[2], call[3]),
];

function actor(api, operation) {
  if (operation === 'openRoot') return (_, at) => api.close(api.openRoot(at));
  if (operation === 'openRelative') return (handle, to) => api.close(api.openRelative(handle, to));
  return api[operation];
}

// The fields of the floor's Call.
function floorCall(operation, call) {
  if (operation === 'openRoot') return [call[0].split('/').slice(1), [], '', '', 0];
  const [first, second = []] = (operation === 'capture' ? call[0] : call).filter(Array.isArray);
  const body = call.find(Buffer.isBuffer)?.toString('latin1') ?? '';
  const linkText = [...first.slice(1).map(() => '..'), ...second].join('/');
  return [first, second, body, linkText, Number(call[0])];
}

function lay(at, content) {
  if (typeof content !== 'object' || Buffer.isBuffer(content)) return fs.writeFileSync(at, content);
  fs.mkdirSync(at, { recursive: true });
  for (const [name, inner] of Object.entries(content)) lay(path.join(at, name), inner);
}

// Everything beneath `at`, comparable.
function image(at) {
  const stat = fs.lstatSync(at);
  if (stat.isSymbolicLink()) return fs.readlinkSync(at);
  if (!stat.isDirectory()) return fs.readFileSync(at, 'latin1');
  return fs.readdirSync(at).map((name) => [name, image(path.join(at, name))]);
}

// How many bytes or names a result holds, which is all that the floor tells of it.
function weigh(result) {
  if (Buffer.isBuffer(result)) return result.length;
  if (typeof result !== 'object') return typeof result === 'string' ? 1 : 0;
  const parts = 'type' in result ? [result.body] : Object.values(result);
  return parts.reduce((sum, part) => sum + weigh(part), 0);
}

function runner(name, { operation, floor: plan }, root, calls) {
  if (name === 'floor') {
    const fd = fs.openSync(root);
    const prepared = floor.prepare(
      plan,
      fd,
      calls.map((call) => floorCall(operation, call)),
    );
    const run = (times) => floor.run(prepared, times);
    return { run, results: () => run(1), close: () => fs.closeSync(fd) };
  }
  const api = subjects[name] ?? tarvek;
  const handle = api.openRoot(root);
  const act = actor(api, operation);
  const make = byCount[calls[0].length];
  const run = (times) => {
    for (let left = times; left > 0; --left) for (const call of calls) make(act, handle, call);
  };
  const results = () => calls.map((call) => make(act, handle, call));
  return { run, results, close: () => api.close(handle) };
}

// What comes back:
//   prepare()   lays the place out where it has to be; belongs before every round
//   run(times)  makes the calls
//   results()   makes them once, for comparison
//   weight      by which a round counts
function stand(name, workload, base) {
  const root = path.join(base, workload.shared ? 'shared' : name.replace(/\W/g, '-'));
  const place = { at: (...names) => path.join(root, ...names) };
  let laid = fs.existsSync(root);
  const prepare = () => {
    if (laid && !workload.once) return;
    fs.mkdirSync(root, { recursive: true });
    for (const entry of fs.readdirSync(root)) fs.rmSync(place.at(entry), { recursive: true });
    lay(root, workload.layout);
    laid = true;
  };
  prepare();
  const beside = name === PER_FILE;
  const calls = beside ? [[[['small']]]] : workload.calls(place);
  const weight = beside ? 1000 / workload.files : calls.length;
  return {
    name,
    root,
    prepare,
    weight,
    once: workload.once,
    ...runner(name, workload, root, calls),
  };
}

// Fails unless every stand returns and leaves what the first one does.
function compare(stands, { shared, name }) {
  const outcomes = stands.map((stand) => {
    stand.prepare();
    const results = stand.results();
    return { name: stand.name, results, left: shared ? undefined : image(stand.root) };
  });
  const expected = outcomes[0];
  const weight = weigh(expected.results);
  for (const { name: subject, results, left } of outcomes) {
    const same =
      subject === 'floor' ? results === weight : isDeepStrictEqual(results, expected.results);
    if (subject === PER_FILE || (same && isDeepStrictEqual(left, expected.left))) continue;
    throw new Error(`${name}: what ${subject} did is not what ${expected.name} did`);
  }
}

module.exports = { stand, compare, home, lay, subjects };
