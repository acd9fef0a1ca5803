'use strict';

// Every operation runs in a loop while another process (attack/attacker.c) keeps putting what leads
// out of the root in the place of the directories and files on its way: symbolic links, hard links
// and, where the operation is for files, a directory from outside. Whatever the attacker's luck,
// nothing outside changes, nothing from outside is returned, every error is one of the table and no
// descriptor is lost. The same is tried without luck, at every call that an operation makes.
//
// Two windows are open on purpose; the last tests measure them and claim nothing. An operation
// holds its directories open: where one crosses the border of the root, what is read or made in it
// is then outside, and what came in is beneath. A creating walk flushes on its way, which makes
// that window wide. And a file can have a second name between two looks that each find one.

// In memory, as faults.js has it: with no disk to wait for there are many more calls.
const { plain, rehearse, run } = require('./support/faults.js');
const assert = require('node:assert/strict');
const { execFile } = require('node:child_process');
const { once } = require('node:events');
const fs = require('node:fs');
const path = require('node:path');
const test = require('node:test');
const { isDeepStrictEqual, promisify, types } = require('node:util');
const { serialize } = require('node:v8');
const harness = require('./support/harness.js');
const { compile } = require('./support/native.js');
const { scenarios } = require('./support/scenarios.js');
const tarvek = require('./support/tarvek.js');

const { build, descriptors, expectOutcome, failures, place, prepare, thrownBy, treeOf } = harness;
const FULL = process.env.TARVEK_TEST_FULL === '1';
const MILLISECONDS = FULL ? 1500 : 200;
const CANARY = 'a canary from outside';
const outside = path.join(place.base, 'outside');
const mirrored = (name) => path.join(outside, 'mirror', name);
const everythingIn = (at) => fs.readdirSync(at, { recursive: true });
const entryAt = (at) => thrownBy(() => fs.lstatSync(at)).result;
const attacker = compile('attack/attacker.c');

// What the attacker does to a name, as attacker.c calls it, and what outside it uses for that.
const ON_FILES = /^(exists|read|write|append|removeIfEquals|publishVerified) /;
function claimed(call, name) {
  const links = { s: mirrored(name), r: mirrored(name) };
  if (!entryAt(place.at(name))?.isFile()) return links;
  const lent = ON_FILES.test(call) ? { x: path.join(outside, 'lent/directory') } : {};
  return { ...links, h: mirrored(`${name}/../canary`), ...lent };
}
const unclaimed = (call, name) =>
  call.startsWith('append') ? { l: mirrored(`${name}.twin`) } : { x: mirrored(name) };

function lay(at, { before, paths }) {
  build(at, before);
  for (const [name, ...rest] of paths) {
    if (rest.length > 0) fs.mkdirSync(path.join(at, name), { recursive: true });
  }
}

// Builds the root's mirror outside, where every directory holds a canary more and, if the call gives
// bytes back, every file is one.
function layOutside(row) {
  fs.rmSync(outside, { recursive: true, force: true });
  build(outside, { lent: { directory: {} } });
  lay(mirrored(''), row);
  for (const at of everythingIn(outside).map((name) => path.join(outside, name))) {
    if (entryAt(at).isDirectory()) fs.writeFileSync(path.join(at, 'canary'), CANARY);
    if (entryAt(at).isFile() && !row.mutates) fs.writeFileSync(at, CANARY);
  }
}

// Builds the root too. Tells of each path what comes and goes with the call.
function arrange(row) {
  const { before, paths, mutates } = row;
  fs.rmSync(place.root, { recursive: true, force: true });
  lay(place.root, row);
  layOutside(row);
  return (mutates ? paths : []).map((names) => {
    const steps = names.map((_, index) => names.slice(0, index + 1));
    const step = steps.find((some) => !entryAt(place.at(...some))) ?? names;
    return [step, step.reduce((layout, name) => layout?.[name], before)];
  });
}

function imageOutside() {
  const image = Object.entries(treeOf(outside)).map(([name, entry]) => {
    const { ino, mtimeNs } = fs.lstatSync(path.join(outside, name), { bigint: true });
    // From there the attacker lends its directory.
    return [name, `${entry} ${ino} ${name === 'lent' || mtimeNs}`];
  });
  return Object.fromEntries(image);
}

// Puts away what the call made, or back what it took; fails where the attacker was faster.
function restore(handle, names, content, spare) {
  if (content === undefined) return tarvek.move(handle, names, spare);
  if (tarvek.exists(handle, names)) return;
  build(place.at(...spare), content);
  tarvek.move(handle, spare, names);
}

function isFromOutside(result, call, operations) {
  if (result === true) return call.endsWith('/canary');
  if (!types.isExternal(result)) return serialize(result).includes('canary');
  const found = operations.exists(result, ['canary']);
  operations.close(result);
  return found;
}

const isUnknown = (thrown) =>
  failures.every((name) => 'thrown' in thrownBy(() => expectOutcome(name, { thrown })));

// What is too little for an attack. An exchange looks at nothing; it is refused only in a gap.
function lacking({ call }, tally) {
  const enough = { swaps: 500, succeeded: 20, refused: call.startsWith('exchange') ? 0 : 3 };
  return Object.keys(enough).filter((what) => tally[what] < enough[what]);
}

async function attack(row, swapsOf = claimed, operations = tarvek) {
  const moving = arrange(row);
  const names = [...everythingIn(place.root), ...moving.map(([step]) => step.join('/'))];
  const words = [...new Set(names)].flatMap((name) => {
    const swaps = Object.entries(swapsOf(row.call, name));
    const [directory, leaf] = [path.dirname(name), path.basename(name)];
    return swaps.flatMap(([kind, target]) => [kind, directory, leaf, target]);
  });
  fs.mkdirSync(place.at('aside'));
  const before = imageOutside();
  const handle = tarvek.openRoot(place.root);
  const opened = [];
  const open = (at) => {
    const { result = fs.openSync(place.root) } = thrownBy(() => fs.openSync(at));
    return opened[opened.push(result) - 1];
  };
  const ctx = { ...place, open, handle: operations === tarvek ? handle : place.root };
  const errors = new Map();
  const tally = { succeeded: 0, refused: 0, returned: 0 };
  const running = promisify(execFile)(attacker, words, { cwd: place.root, env: {} });
  await once(running.child.stdout, 'data');
  const held = descriptors().length;
  const start = performance.now();
  const patience = () => (swapsOf === claimed && lacking(row, tally).length > 0 ? 20 : 1);
  for (let serial = 0; performance.now() - start < MILLISECONDS * patience(); ++serial) {
    moving.map((one, n) => thrownBy(() => restore(handle, ...one, ['aside', `${serial}.${n}`])));
    const [operation, args] = prepare(ctx, row.call);
    const { thrown, result } = thrownBy(() => operations[operation](...args));
    tally[thrown ? 'refused' : 'succeeded'] += 1;
    if (thrown) errors.set(`${thrown.code} ${thrown.message}`, thrown);
    else tally.returned += isFromOutside(result, row.call, operations);
    for (const fd of opened.splice(0)) fs.closeSync(fd);
  }
  running.child.kill();
  const lost = descriptors().length - held;
  const [, swaps, grown] = (await running).stdout.split(/\s/).map(Number);
  tarvek.close(handle);
  // With it go the hard links to what is outside.
  fs.rmSync(place.root, { recursive: true });
  const unknown = [...errors.values()].filter(isUnknown);
  return { ...tally, swaps, grown, wrong: { lost, unknown }, before, after: imageOutside() };
}

const rows = scenarios
  .filter(({ call }) => /a\/b|exchange/.test(call))
  .map((row) => (/^exists.*ing$/.test(row.name) ? { ...row, call: 'exists a/b/canary' } : row));
const attacks = (title, rows, body) =>
  rows.map((row) => test(`${title}: ${row.name}`, (t) => body(row, t)));
const counts = ({ succeeded, refused, swaps }) =>
  `${succeeded} succeeded, ${refused} refused, ${swaps} swaps`;
const FINE = { lost: 0, unknown: [] };

attacks('under attack', rows, async (row, t) => {
  const { returned, wrong, before, after, ...tally } = await attack(row);
  t.diagnostic(`${row.name}: ${counts(tally)}`);
  assert.deepEqual({ returned, ...wrong }, { returned: 0, ...FINE });
  assert.deepEqual(after, before, 'what is outside');
  assert.deepEqual(lacking(row, tally), [], `too little for an attack: ${counts(tally)}`);
});

// The same at every moment: just before one call after the other a name is exchanged for good, with
// a link, a hard link or a copy. Only the copy may be taken for it. The shorter form tries a third of
// those of directories.
const DECOYS = {
  s: (decoy, target) => fs.symlinkSync(target, decoy),
  h: (decoy, target) => fs.linkSync(target, decoy),
  copy: (decoy, _, at) => fs.cpSync(at, decoy, { recursive: true, verbatimSymlinks: true }),
};
const decoy = path.join(place.base, 'decoy');

// What holds the expected bytes when an operation that looks at its file again has succeeded.
const PROVED = { append: 0, publishVerified: 1 };

function exchangeEverywhere(row, t) {
  const { calls, before, after } = rehearse(row);
  const isFile = (name) => before[name]?.startsWith('100');
  const lastLook = calls.map(([name]) => name).lastIndexOf('fstatat') + 1;
  const proved = row.paths[PROVED[row.operation]]?.join('/');
  let exchanges = 0;
  const exchangeBefore = (first, name, kind) => {
    let image;
    const swap = ({ at }) => {
      layOutside(row);
      image = imageOutside();
      DECOYS[kind](decoy, claimed(row.call, name)[kind], at(name));
      return [at(name), decoy];
    };
    run(row, { first, action: 'swap', swap }, ({ outcome: { thrown, result }, ended }) => {
      exchanges += ended === 0;
      assert.ok(!thrown || !isUnknown(thrown), thrown?.stack);
      assert.equal(isFromOutside(result, row.call, tarvek), false, 'from outside');
      const isProved = proved && !thrown && isFile(name) && first <= lastLook;
      if (isProved) assert.equal(plain(treeOf(place.root))[proved], plain(after)[proved]);
      for (const at of [place.root, decoy]) fs.rmSync(at, { recursive: true });
      assert.deepEqual(imageOutside(), image, 'what is outside');
    });
  };
  const plans = Object.keys({ ...before, ...after }).flatMap((name) => {
    // What the call makes has no like outside, and is not there before it is made.
    const kinds = name in before ? ['s', 'copy'] : ['s'];
    if (isFile(name)) kinds.push('h');
    return calls.flatMap((_, i) => kinds.map((kind) => [i + 1, name, kind]));
  });
  const chosen = plans.filter(([, name], i) => FULL || isFile(name) || i % 3 === 0);
  for (const plan of chosen) exchangeBefore(...plan);
  t.diagnostic(`${exchanges} exchanges: ${row.name}`);
  const certain = chosen.filter(([, name]) => name in before).length;
  assert.ok(exchanges > 0 && exchanges >= certain / 2, `only ${exchanges} of ${chosen.length}`);
}
attacks('at every call of', rows, exchangeEverywhere);

const checkedFirst = (act) => (root, names, body) => {
  const at = path.join(root, ...names);
  const linked = entryAt(at)?.isSymbolicLink() || (entryAt(at)?.isFile() && entryAt(at).nlink > 1);
  assert.ok(!linked && fs.realpathSync(path.dirname(at)) === path.dirname(at));
  return act(at, body);
};
const naive = {
  read: checkedFirst((at) => fs.readFileSync(at)),
  write: checkedFirst((at, body) => fs.writeFileSync(at, body)),
  remove: checkedFirst((at) => fs.rmSync(at, { recursive: true })),
};
const easy = rows.filter(({ call, missing }) => /^(read|write|remove) /.test(call) && !missing);
attacks('a victim that checks paths first is caught', easy, async (row) => {
  for (let tries = 0; tries < 20; ++tries) {
    const { returned, before, after } = await attack(row, claimed, naive);
    if (returned > 0 || !isDeepStrictEqual(after, before)) return;
  }
  assert.fail('nothing escaped');
});

const windows = rows.filter(({ name }) => /^(read|append.*a file|write.*missing)/.test(name));
attacks('measured only', windows, async (row, t) => {
  const { wrong, before, after, returned, grown, ...tally } = await attack(row, unclaimed);
  const made = Object.keys(after).filter((name) => !(name in before));
  const harm = `${returned} from outside, grown under two names ${grown}, made ${made}`;
  t.diagnostic(`${row.name}: ${counts(tally)}; ${harm}`);
  assert.deepEqual(wrong, FINE);
});
