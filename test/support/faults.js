'use strict';

// Makes calls of the module under test/interpose/faults.c. A test file that requires this one starts
// over in a process into which that library is preloaded; the first one only passes on how it ends.

const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const { isDeepStrictEqual } = require('node:util');
const harness = require('./harness.js');
const { compile } = require('./native.js');
const tarvek = require('./tarvek.js');

const { build, descriptors, expectOutcome, prepare, sandbox, thrownBy, treeOf } = harness;
// Bound lazily, since child processes that load it are not Node.
const library = compile('interpose/faults.c', '-shared', '-fPIC', '-Wl,-z,lazy', '-ldl');
const { LD_PRELOAD = '', ASAN_OPTIONS = '' } = process.env;
const full = process.env.TARVEK_TEST_FULL === '1';

if (!LD_PRELOAD.includes(library)) {
  const env = {
    ...process.env,
    // Ahead of a sanitizer's runtime as well, which else would be the one that calls.
    ...{ LD_PRELOAD: `${library}:${LD_PRELOAD}` },
    ...{ ASAN_OPTIONS: `${ASAN_OPTIONS}:verify_asan_link_order=0` },
    // Nothing here looks beneath the page cache, and a disk costs two thirds of the time.
    ...(fs.existsSync('/dev/shm') && { TMPDIR: '/dev/shm' }),
  };
  const args = [...process.execArgv, ...process.argv.slice(1)];
  const run = spawnSync(process.execPath, args, { env, stdio: 'inherit' });
  if (run.signal) console.error(`tarvek: the process under test ended by ${run.signal}`);
  process.exit(run.status ?? 1);
}

const ACTIONS = ['nothing', 'fail', 'short', 'zero', 'kill'];
const shared = { exports: {} };
process.dlopen(shared, library);
const [HEAD, ENDED, LENGTH] = [8, 5, 7];
const state = new Int32Array(shared.exports, 0, HEAD);

// What the module called in the last run: [name, ...arguments, result] of each.
function recorded() {
  const text = Buffer.from(shared.exports, state.byteLength, state[LENGTH]).toString();
  return JSON.parse(`[${text.trim().replaceAll('\n', ',').replaceAll('__fx', 'f')}]`);
}

// Makes one scenario's call over and over, each time from the beginning. `body` is given run(plan,
// verify), and the calls and images of a run in which nothing happened. By a plan `count` calls from
// the `first` on fail, with the one errno and then the other, are short, return 0, or are followed
// by the death of their process.
function rehearse(scenario, body) {
  sandbox(scenario.before, (ctx) => {
    const before = treeOf(ctx.root);
    const run = ({ first = 0, count = 1, action = 'nothing', errnos = [] }, verify) => {
      const borrowed = [];
      const open = (at) => borrowed[borrowed.push(fs.openSync(at)) - 1];
      const [operation, args] = prepare({ ...ctx, open }, scenario.call);
      const held = descriptors().length;
      const errors = [0, 1].map((i) => os.constants.errno[errnos[i]] ?? 0);
      state.set([1, first, count, ACTIONS.indexOf(action), ...errors, 0, 0]);
      const outcome = thrownBy(() => tarvek[operation](...args));
      state[0] = 0;
      const calls = recorded();
      verify({ ctx, outcome, calls, image: treeOf(ctx.root), ended: state[ENDED] });
      // All that a failure leaves open, on purpose: the duplicate that no stream took.
      const left = calls.filter(([name, fd, stream]) => name === 'fdopendir' && fd >= 0 && !stream);
      for (const fd of [...borrowed, ...left.map(([, fd]) => fd)]) fs.closeSync(fd);
      assert.equal(descriptors().length + borrowed.length, held, 'open descriptors');
      if (isDeepStrictEqual(treeOf(ctx.root), before)) return;
      for (const name of fs.readdirSync(ctx.root)) fs.rmSync(ctx.at(name), { recursive: true });
      for (const [name, content] of Object.entries(scenario.before)) build(ctx.at(name), content);
    };
    let whole;
    run({}, ({ outcome, calls, image }) => {
      scenario.check(expectOutcome('-', outcome), ctx);
      whole = { calls, before, after: image };
    });
    body(run, whole);
  });
}

const change = (image, edit) => Object.fromEntries(Object.entries(image).flatMap(edit));
// Without modes and link counts.
const plain = (image) =>
  change(image, ([name, is]) => [[name, is.replace(/^(\d+)\d{4}( \d+)?/, '$1')]]);
const isTemporary = (name) => /(^|\/)\.tarvek-[^/]*$/.test(name);

// Whether an operation that did not come to its end may leave this image behind. The directories on
// its way may be there or not, and write's temporary file.
function isLawful({ operation, paths }, ...images) {
  const isPassing = (name) =>
    paths.some((names) => names.join('/').startsWith(`${name}/`)) ||
    (operation === 'write' && isTemporary(name));
  const [before, after, image] = images.map((one) =>
    change(plain(one), (entry) => (isPassing(entry[0]) ? [] : [entry])),
  );
  const leaf = paths[0].join('/');
  const [was, is, will] = [before, image, after].map((one) => one[leaf] ?? '10');
  const isGrowing = is.startsWith(was) && is.length <= will.length;
  const others = {
    create: isGrowing && { ...after, [leaf]: is },
    append: isGrowing && { ...after, [leaf]: is },
    remove: change(before, (entry) => (entry[0] in image ? [entry] : [])),
    publishVerified: { ...before, ...after },
  };
  return [before, after, others[operation]].some((one) => isDeepStrictEqual(one, image));
}

module.exports = { full, rehearse, plain, isTemporary, isLawful };
