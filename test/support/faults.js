'use strict';

// Makes calls of the module under test/interpose/faults.c. A test file that requires this one
// starts over in a process into which that library is preloaded; the first one only passes on how
// it ends.

const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const { errno } = require('node:os').constants;
const { isDeepStrictEqual } = require('node:util');
const { expectOutcome, prepare, sandbox, thrownBy, treeOf } = require('./harness.js');
const { compile } = require('./native.js');
const tarvek = require('./tarvek.js');

// Bound lazily, since child processes that load it are not Node.
const library = compile('interpose/faults.c', '-shared', '-fPIC', '-Wl,-z,lazy', '-ldl');
const { LD_PRELOAD = '', ASAN_OPTIONS = '' } = process.env;

if (/[ :]/.test(library)) throw new Error(`LD_PRELOAD cannot take the path ${library}`);
if (!LD_PRELOAD.includes(library)) {
  // Ahead of a sanitizer's runtime as well, which else would be the one that calls.
  process.env.LD_PRELOAD = `${library}:${LD_PRELOAD}`;
  process.env.ASAN_OPTIONS = `${ASAN_OPTIONS}:verify_asan_link_order=0`;
  // Nothing here looks beneath the page cache, and a disk costs two thirds of the time.
  process.env.TMPDIR = '/dev/shm';
  const args = [...process.execArgv, ...process.argv.slice(1)];
  const run = spawnSync(process.execPath, args, { stdio: 'inherit' });
  if (run.signal) console.error(`tarvek: the process under test ended by ${run.signal}`);
  process.exit(run.status ?? 1);
}

const ACTIONS = ['nothing', 'fail', 'short', 'zero', 'kill', 'swap'];
const shared = { exports: {} };
process.dlopen(shared, library);
const state = new Int32Array(shared.exports, 16, 9);
const [SWAPPED, ROOM] = [state.byteOffset + state.byteLength, 256];
const RECORD = SWAPPED + 2 * ROOM;
const swapped = [0, ROOM].map((at) => Buffer.from(shared.exports, SWAPPED + at, ROOM));
const [ENDED, LENGTH] = [7, 8];
const maps = fs.readFileSync('/proc/self/maps', 'utf8');
const [, ...code] = /^(\w+)-(\w+) r-x.*\/tarvek\.node$/m.exec(maps);
new BigUint64Array(shared.exports, 0, 2).set(code.map((at) => BigInt(`0x${at}`)));

const callsIn = (record) => JSON.parse(`[${record.trim().replaceAll('\n', ',')}]`);

// Makes the scenario's call by a plan: `count` calls from the `first` on fail, with the one errno
// and then the other, are short, return 0, are followed by the death of their process, or come after
// an exchange of the two paths that `swap` returns. `verify` is told the calls as [name,
// ...arguments, result], the record is their text.
function run(scenario, { first = 0, count = 1, action = 'nothing', errnos = [], swap }, verify) {
  sandbox(scenario.before, (ctx) => {
    const before = treeOf(ctx.root);
    const [operation, args] = prepare(ctx, scenario.call);
    for (const [i, at] of (swap?.(ctx) ?? []).entries()) swapped[i].write(`${at}\0`);
    const errors = [0, 1].map((i) => errno[errnos[i]] ?? 0);
    state.set([1, first, count, ACTIONS.indexOf(action), ...errors, 0, -1, 0]);
    const outcome = thrownBy(() => tarvek[operation](...args));
    state[0] = 0;
    const text = Buffer.from(shared.exports, RECORD, state[LENGTH]);
    const record = text.toString().replaceAll('__fx', 'f');
    const calls = callsIn(record);
    // All that a failure leaves open, on purpose: the duplicate that no stream took.
    const lone = calls.filter(([name, fd, stream]) => name === 'fdopendir' && fd >= 0 && !stream);
    for (const [, fd] of lone) fs.closeSync(fd);
    const after = treeOf(ctx.root);
    try {
      verify({ ctx, outcome, record, calls, before, after, ended: state[ENDED] });
    } catch (error) {
      error.message = `${action} ${count} ${errnos}, ${calls[first - 1]}: ${error.message}`;
      throw error;
    }
  });
}

// The record, the calls and the images of a call to which nothing happens.
function rehearse(scenario) {
  let whole;
  run(scenario, {}, ({ ctx, outcome, ...seen }) => {
    scenario.check(expectOutcome('-', outcome), ctx);
    whole = seen;
  });
  return whole;
}

// Without modes and link counts.
function plain(image, suits = () => true) {
  const entries = Object.entries(image).filter(([name]) => suits(name));
  const without = ([name, is]) => [name, is.replace(/^(\d+)\d{4}( \d+)?/, '$1')];
  return Object.fromEntries(entries.map(without));
}
const isTemporary = (name) => /(^|\/)\.tarvek-[^/]*$/.test(name);

// Whether an operation that did not come to its end may leave this image behind. The directories on
// its way may be there or not, and write's temporary file.
function isLawful({ operation, paths }, ...images) {
  const isLasting = (name) =>
    !paths.some((names) => names.join('/').startsWith(`${name}/`)) &&
    !(operation === 'write' && isTemporary(name));
  const [before, after, image] = images.map((one) => plain(one, isLasting));
  const leaf = paths[0].join('/');
  const [was, is, will] = [before, image, after].map((one) => one[leaf] ?? '10');
  const grown = is.startsWith(was) && is.length <= will.length && { ...after, [leaf]: is };
  const others = {
    ...{ create: grown, append: grown, publishVerified: { ...before, ...after } },
    remove: plain(before, (name) => name in image),
  };
  return [before, after, others[operation]].some((one) => isDeepStrictEqual(one, image));
}

module.exports = { run, rehearse, callsIn, plain, isTemporary, isLawful };
