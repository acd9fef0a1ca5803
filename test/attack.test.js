'use strict';

// Every operation runs in a loop while another process (attack/attacker.c) keeps putting what leads
// out of the root in the place of the directories and files on its way: symbolic links, hard links
// and, where the operation is for files, a directory from outside. Whatever the attacker's luck,
// nothing outside changes, nothing from outside is returned, every error is one of the table and no
// descriptor is lost.
//
// Two windows are open on purpose; the last tests measure them and claim nothing. An operation holds
// its directories open: where one crosses the border of the root, what is read or made in it is then
// outside, and what came in is beneath. A creating walk flushes on its way, which makes that window
// wide. And a file can have a second name between two looks that each find one.

const fs = require('node:fs');
// In memory where that can be had: with no disk to wait for there are many more calls.
if (fs.existsSync('/dev/shm')) process.env.TMPDIR ??= '/dev/shm';

const assert = require('node:assert/strict');
const { execFile } = require('node:child_process');
const path = require('node:path');
const test = require('node:test');
const { isDeepStrictEqual, promisify, types } = require('node:util');
const { serialize } = require('node:v8');
const harness = require('./support/harness.js');
const { compile } = require('./support/native.js');
const { scenarios } = require('./support/scenarios.js');
const tarvek = require('./support/tarvek.js');

const { build, descriptors, expectOutcome, place, prepare, thrownBy, treeOf } = harness;
const FAILURES =
  `outside missing storage candidate exists removal append entry link hardLink special
  replacedFile duplicate changed replacedDirectory changedDirectory`.split(/\s+/);
const MILLISECONDS = process.env.TARVEK_TEST_FULL === '1' ? 1500 : 200;
const ENOUGH = { swaps: 500, succeeded: 20, refused: 3 };
const CANARY = 'a canary from outside';
const outside = path.join(place.base, 'outside');
const mirrored = (name) => path.join(outside, 'mirror', name);
const everythingIn = (at) => fs.readdirSync(at, { recursive: true });
const entryAt = (at) => fs.lstatSync(at, { throwIfNoEntry: false });
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

// Builds the root and its mirror outside, where every directory holds a canary more and, if the call
// gives bytes back, every file is one. Tells of each path what comes and goes with the call.
function arrange({ before, paths, mutates }) {
  for (const at of [place.root, outside]) fs.rmSync(at, { recursive: true, force: true });
  build(outside, { lent: { directory: {} } });
  for (const at of [place.root, mirrored('')]) {
    build(at, before);
    for (const names of paths) {
      if (names.length > 1) fs.mkdirSync(path.join(at, names[0]), { recursive: true });
    }
  }
  for (const at of everythingIn(outside).map((name) => path.join(outside, name))) {
    if (entryAt(at).isDirectory()) fs.writeFileSync(path.join(at, 'canary'), CANARY);
    if (entryAt(at).isFile() && !mutates) fs.writeFileSync(at, CANARY);
  }
  return (mutates ? paths : []).map((names) => {
    const steps = names.map((_, index) => names.slice(0, index + 1));
    const step = steps.find((some) => !entryAt(place.at(...some))) ?? names;
    return { name: step.join('/'), content: step.reduce((layout, some) => layout?.[some], before) };
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
function restore(at, content, spare) {
  const [from, to] = content === undefined ? [at, spare] : [spare, at];
  if (from === spare && !entryAt(at)) build(spare, content);
  thrownBy(() => fs.renameSync(from, to));
}

function isFromOutside(result, call, operations) {
  if (result === true) return call.endsWith('/canary');
  if (!types.isExternal(result)) return serialize(result).includes('canary');
  const found = operations.exists(result, ['canary']);
  operations.close(result);
  return found;
}

function makeCall(call, ctx, operations, tally) {
  const [operation, args] = prepare(ctx, call);
  const { thrown, result } = thrownBy(() => operations[operation](...args));
  tally[thrown ? 'refused' : 'succeeded'] += 1;
  if (thrown) tally.errors.set(`${thrown.code} ${thrown.message}`, thrown);
  else tally.returned += isFromOutside(result, call, operations);
}

const isUnknown = (thrown) =>
  FAILURES.every((name) => 'thrown' in thrownBy(() => expectOutcome(name, { thrown })));
// An exchange looks at nothing; it is refused only where it finds a gap.
const enoughFor = ({ call }) => (call.startsWith('exchange') ? { ...ENOUGH, refused: 0 } : ENOUGH);
function lacking(row, tally) {
  const enough = enoughFor(row);
  return Object.keys(enough).filter((what) => tally[what] < enough[what]);
}

async function attack(row, swapsOf = claimed, operations = tarvek) {
  const moving = arrange(row);
  const names = new Set([...everythingIn(place.root), ...moving.map(({ name }) => name)]);
  const words = [...names].flatMap((name) =>
    Object.entries(swapsOf(row.call, name)).flatMap(([kind, target]) => {
      return [kind, path.dirname(name), path.basename(name), target];
    }),
  );
  fs.mkdirSync(place.at('aside'));
  const before = imageOutside();
  // The test reaches what moves through descriptors from now, or it would walk into the traps too.
  const pins = moving.map(({ name }) => fs.openSync(place.at(name, '..')));
  const at = moving.map(({ name }, n) => `/proc/self/fd/${pins[n]}/${path.basename(name)}`);
  const borrow = () => {
    const { result = fs.openSync(place.root) } = thrownBy(() => fs.openSync(at[0]));
    return pins[pins.push(result) - 1];
  };
  const ctx = { ...place, handle: operations.openRoot(place.root), open: borrow };
  const tally = { succeeded: 0, refused: 0, returned: 0, errors: new Map() };
  const running = promisify(execFile)(attacker, ['600', ...words], { cwd: place.root, env: {} });
  const held = descriptors().length;
  const start = performance.now();
  const patience = () => (swapsOf === claimed && lacking(row, tally).length > 0 ? 20 : 1);
  try {
    for (let serial = 0; performance.now() - start < MILLISECONDS * patience(); ++serial) {
      moving.map(({ content }, n) => restore(at[n], content, place.at('aside', `${serial}.${n}`)));
      makeCall(row.call, ctx, operations, tally);
      for (const fd of pins.splice(moving.length)) fs.closeSync(fd);
    }
  } finally {
    running.child.kill();
  }
  const lost = descriptors().length - held;
  const [swaps, grown] = (await running).stdout.split(' ').map(Number);
  for (const fd of pins) fs.closeSync(fd);
  operations.close(ctx.handle);
  // With it go the hard links to what is outside.
  fs.rmSync(place.root, { recursive: true });
  const unknown = [...tally.errors.values()].filter(isUnknown);
  return { ...tally, unknown, swaps, grown, lost, before, after: imageOutside() };
}

const count = ({ name }, { succeeded, refused, swaps }) =>
  `${name}: ${succeeded} succeeded, ${refused} refused, ${swaps} swaps`;
const rows = scenarios
  .filter(({ call }) => /a\/b|exchange/.test(call))
  .map((row) => (/^exists.*ing$/.test(row.name) ? { ...row, call: 'exists a/b/canary' } : row));

for (const row of rows) {
  test(`under attack: ${row.name}`, async (t) => {
    const { returned, unknown, lost, before, after, ...tally } = await attack(row);
    t.diagnostic(count(row, tally));
    assert.deepEqual({ returned, unknown, lost }, { returned: 0, unknown: [], lost: 0 });
    assert.deepEqual(after, before, 'what is outside');
    assert.deepEqual(lacking(row, tally), [], `too little for an attack: ${count(row, tally)}`);
  });
}

const checkedFirst = (act) => (root, names, body) => {
  const at = path.join(root, ...names);
  const linked = entryAt(at)?.isSymbolicLink() || (entryAt(at)?.isFile() && entryAt(at).nlink > 1);
  assert.ok(!linked && fs.realpathSync(path.dirname(at)) === path.dirname(at));
  return act(at, body);
};
const naive = {
  openRoot: (at) => at,
  close: () => {},
  read: checkedFirst((at) => fs.readFileSync(at)),
  write: checkedFirst((at, body) => fs.writeFileSync(at, body)),
  remove: checkedFirst((at) => fs.rmSync(at, { recursive: true })),
};
for (const row of rows.filter((row) => /^(read|write|remove) /.test(row.call) && !row.missing)) {
  test(`a victim that checks paths first is caught: ${row.name}`, async () => {
    for (let attacks = 0; attacks < 20; ++attacks) {
      const { returned, before, after } = await attack(row, claimed, naive);
      if (returned > 0 || !isDeepStrictEqual(after, before)) return;
    }
    assert.fail('nothing escaped');
  });
}

for (const row of rows.filter(({ name }) => /^(read|append.*a file|write.*missing)/.test(name))) {
  test(`measured only: ${row.name}`, async (t) => {
    const { unknown, lost, before, after, ...tally } = await attack(row, unclaimed);
    const made = Object.keys(after).filter((name) => !(name in before));
    const harm = `${tally.returned} from outside, grown under two names ${tally.grown}, made ${made}`;
    t.diagnostic(`${count(row, tally)}; ${harm}`);
    assert.deepEqual({ unknown, lost }, { unknown: [], lost: 0 });
  });
}
