'use strict';

// What stands where an operation must not act, and what happens under its hands while it runs. Each
// row runs through every operation that it concerns, and the disk is compared whole.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const { isExternal } = require('node:util').types;
const { OLD, THROWN, lines, symlink, hardlink, fifo, socket } = require('./support/harness.js');
const { fresh, build, place, assertTree, prepare } = require('./support/harness.js');
const { attempt, thrower, expectThrown, expectCall, each } = require('./support/harness.js');
const { scenarios } = require('./support/scenarios.js');
const tarvek = require('./support/tarvek.js');

const KINDS = {
  'a link': [symlink('file'), symlink('tree'), symlink('nowhere')],
  'a hard link': [hardlink('twin')],
  special: [fifo(), socket()],
  'a directory': [{ g: '' }],
  'a file': [OLD],
  nothing: [undefined],
};

// What comes of it when d/f is a link and so on, and when there is no d: a failure, or "-".
const [[, ...COLUMNS], ...LEAVES] = lines(`
  the call                              a link     a hard link  special    a directory  a file     nothing    no ancestor
  exists d/f                            outside    outside      -          -            -          -          -
  read d/f                              outside    outside      outside    outside      -          missing    missing
  list d/f                              outside    outside      outside    -            outside    missing    missing
  openRelative d/f                      outside    outside      outside    -            outside    missing    missing
  snapshot d/f                          outside    outside      outside    -            outside    missing    missing
  capture d/f                           link       hardLink     special    -            -          missing    missing
  write d/f NEW                         outside    outside      outside    outside      -          -          -
  create d/f NEW                        outside    outside      exists     exists       exists     -          -
  append d/f 0 0 NEW                    outside    outside      outside    outside      -          -          -
  ensureDirectory d/f                   outside    outside      outside    -            outside    -          -
  remove d/f                            outside    outside      -          -            -          missing    missing
  removeIfEquals d/f OLD                outside    outside      outside    outside      -          missing    missing
  move d/f free                         outside    outside      -          -            -          missing    missing
  move file d/f                         outside    outside      exists     exists       exists     -          -
  ensureRelativeSymlink free d/f        outside    outside      outside    -            outside    missing    missing
  ensureRelativeSymlink d/f tree        entry      entry        entry      entry        entry      -          -
  publishVerified fd:file d/f free OLD  candidate  candidate    candidate  candidate    candidate  candidate  missing
  publishVerified fd:file file d/f OLD  exists     exists       exists     exists       exists     -          -`);

const AROUND = { file: OLD, tree: { f: OLD }, twin: OLD };
const NOTHING = COLUMNS.indexOf('nothing');

const standing = LEAVES.flatMap(([call, ...outcomes]) =>
  Object.entries(KINDS).flatMap(([kind, contents], column) => {
    const above = { nothing: outcomes.at(-1), 'a directory': outcomes[NOTHING] }[kind] ?? 'outside';
    return contents.flatMap((f, i) => [
      [`${call}: ${kind} ${i}`, { ...AROUND, d: { ...AROUND, f } }, call, outcomes[column]],
      [`${call}: d is ${kind} ${i}`, { ...AROUND, d: f }, call, above],
    ]);
  }),
);

each('at the leaf or above it stands something else', standing, (ctx, call, expected) => {
  const result = expectCall(expected, ctx, call);
  if (isExternal(result)) tarvek.close(result);
});

// Swaps are renames: a directory that is deleted and made again can come back with its old inode
// number, and then nobody could tell that it was swapped. The decoys hold what the operation wants.
const SWAPS = {
  'by another directory': (directory, decoy) => fs.renameSync(decoy, directory),
  'by a link to another directory': (directory, decoy) => fs.symlinkSync(decoy, directory),
  'by a link to itself': (directory, _, away) => fs.symlinkSync(away, directory),
  'by nothing': () => {},
};
const OPENING = /^(root-ancestor|relative-directory|ancestor)-open$/;
const LATER =
  /^(pre-effect|publish-.*|remove-.*|capture-.*|after-temp-write|.*-file-sync|before-.*)$/;

// The directories, as names beneath the root, whose swap at this point must be noticed.
function watchedAt([point, segment, index], { paths }) {
  const names = paths.find((one) => one[index] === segment) ?? paths[0];
  const depth = point === 'root-ancestor-open' ? index + 1 - place.root.split('/').length : index;
  if (OPENING.test(point)) return depth < 0 ? [] : [names.slice(0, depth + 1)];
  return LATER.test(point) ? names.slice(0, -1).map((_, i) => names.slice(0, i + 1)) : [];
}

// Every point of every scenario, and for each what else is to be tried there, by name.
const atEveryPoint = (variantsOf) =>
  scenarios.flatMap((scenario) =>
    scenario.hooks.flatMap((event, n) =>
      variantsOf(event, scenario).map(([how, ...rest]) => [
        `${scenario.name}: ${how} at ${event}`,
        ...[scenario.before, scenario, n, ...rest],
      ]),
    ),
  );

// Acts at the n-th point of a call.
function nth(n, act) {
  let fired = 0;
  return () => (fired++ === n ? act() : undefined);
}

const swapped = atEveryPoint((event, scenario) =>
  watchedAt(event, scenario).flatMap((names) =>
    Object.entries(SWAPS).map(([how, swap]) => [`${names.join('/')} ${how}`, names, swap]),
  ),
);

each('a directory on the way is swapped', swapped, (ctx, { before, call }, n, names, swap) => {
  const [outside, away] = ['outside', 'away'].map((name) => path.join(ctx.base, name));
  const decoy = path.join(outside, ...names);
  build(outside, before);
  fs.mkdirSync(decoy, { recursive: true });
  const act = () => {
    fs.renameSync(ctx.at(...names), away);
    swap(ctx.at(...names), decoy, away);
  };
  expectCall('outside', ctx, call, nth(n, act));
});

const thrown = atEveryPoint(() => THROWN.map((value) => [`${value}`, value]));

each('a hook or a stage callback throws', thrown, (ctx, { call }, n, value) =>
  expectThrown(value, attempt(ctx, call, nth(n, thrower(value)))),
);

// The walk or the last look at the chain notices that the root is gone. What was checked for the
// last time before goes on with the descriptors that it holds.
const closed = atEveryPoint(([point, segment], { operation, paths, name }) => {
  const done = /^(root-ancestor|external|append|after-file-rename|after-directory)/.test(point);
  if (done || name.includes('an ancestor missing')) return [['closed', '-']];
  const another = /^(move|publishVerified)$/.test(operation) && paths[0].includes(segment);
  return [['closed', another && point === 'ancestor-open' ? 'storage' : 'outside']];
});

each('a hook closes the handle', closed, (ctx, { call, check }, n, expected) => {
  const close = () => tarvek.close(ctx.handle);
  const result = expectCall(expected, ctx, call, nth(n, close));
  if (expected === '-') check(result, ctx);
});

const entered = atEveryPoint(() => [['entered']]);

each('a hook calls the module', entered, (ctx, { call, check, after }, n) => {
  const enter = () => {
    tarvek.ensureDirectory(ctx.handle, ['beside', 'within']);
    tarvek.close(tarvek.openRelative(ctx.handle, ['beside']));
  };
  check(expectCall('-', ctx, call, nth(n, enter)), ctx);
  assertTree({ ...after, beside: fresh({ within: fresh({}) }) });
});

// The memory of the bytes passed in goes away or changes its size.
const memory = { maxByteLength: 64 };
const DISTURBANCES = [
  ['transferred', ({ buffer }) => structuredClone(buffer, { transfer: [buffer] })],
  ...(ArrayBuffer.prototype.resize ? [0, 2, 30] : []).map((size) => [
    `resized to ${size}`,
    ({ buffer }) => buffer.resize(size),
  ]),
];
const USED = /^(append-.*-fsync|remove-if-equals-unlink|after-.*|before-.*)$/;
const disturbed = atEveryPoint(([point], { call }) => {
  const expected = USED.test(point) ? '-' : 'storage';
  return / (OLD|NEW)/.test(call) ? DISTURBANCES.map((row) => [...row, expected]) : [];
});

each('the memory of the bytes is gone', disturbed, (ctx, { call }, n, disturb, expected) => {
  const [operation, args] = prepare(ctx, call);
  const index = args.findIndex((value) => Buffer.isBuffer(value));
  const bytes = new Uint8Array(new ArrayBuffer(args[index].length, memory));
  bytes.set(args[index]);
  args[index] = bytes;
  const act = () => void disturb(bytes);
  expectCall(expected, ctx, [operation, args], nth(n, act));
});

// What happens to the file d/f or the directory d/t, which have copies beside them, or at d/n,
// where nothing was.
const CHANGES = {
  replaced: (at) => fs.renameSync(at, `${at}~`) ?? fs.renameSync(`${at}'`, at),
  linked: (at) => fs.renameSync(at, `${at}~`) ?? fs.symlinkSync(`${at}'`, at),
  'named twice': (at) => fs.linkSync(at, `${at}~`),
  gone: (at) => fs.renameSync(at, `${at}~`),
  truncated: (at) => fs.truncateSync(at, 3),
  extended: (at) => fs.appendFileSync(at, '.'),
  touched: (at) => fs.utimesSync(at, 2, 2),
  chmodded: (at) => fs.chmodSync(at, 0o740),
  rewritten: (at) => {
    // As long, and as old: only the time of the change tells, once the clock has gone on.
    Atomics.wait(new Int32Array(new SharedArrayBuffer(4)), 0, 0, 20);
    fs.writeFileSync(at, OLD.toUpperCase());
    fs.utimesSync(at, 1, 1);
  },
  'a file': (at) => fs.writeFileSync(at, OLD),
  'a directory': (at) => fs.mkdirSync(at),
  'a link': (at) => fs.symlinkSync('f', at),
};
const COPIES = { d: { f: OLD, "f'": OLD, t: {}, "t'": {} } };
const MADE = { 'root/d/f': '100600 1 ' };

// Replaced by a file of the same bytes, and so on. Behind the last look nothing matters any more.
const CHANGED = lines(`
the call                          at                         replaced          linked            named twice  gone       truncated  extended   touched           chmodded          rewritten
exists d/f                        pre-effect                 -                 outside           outside      -          -          -          -                 -                 -
read d/f                          pre-effect                 -                 outside           outside      missing    -          -          -                 -                 -
write d/f NEW                     pre-effect                 -                 outside           outside      -          -          -          -                 -                 -
write d/f NEW stage               before-file-rename         -                 -                 -            -          -          -          -                 -                 -
create d/f NEW                    pre-effect                 exists            outside           outside      -          exists     exists     exists            exists            exists
append d/f 19 0 NEW               pre-effect                 -                 outside           outside      append     append     -          -                 -                 -
append d/f 19 0 NEW               append-leaf-open           outside           outside           outside      outside    append     -          -                 -                 -
append d/f 19 0 NEW               append-write               -                 -                 -            -          -          -          -                 -                 -
remove d/f                        pre-effect                 -                 outside           outside      missing    -          -          -                 -                 -
removeIfEquals d/f OLD            pre-effect                 -                 outside           outside      missing    removal    removal    -                 -                 removal
removeIfEquals d/f OLD            remove-if-equals-open      removal           outside           removal      missing    removal    removal    removal           removal           removal
removeIfEquals d/f OLD            remove-if-equals-unlink    removal           removal           removal      removal    removal    removal    removal           removal           removal
move d/f free                     pre-effect                 -                 outside           outside      missing    -          -          -                 -                 -
publishVerified fd:d/f d/f n OLD  pre-effect                 candidate         candidate         candidate    candidate  candidate  candidate  -                 -                 candidate
publishVerified fd:d/f d/f n OLD  publish-before-validation  candidate         candidate         candidate    candidate  candidate  candidate  -                 -                 candidate
capture d/f                       pre-effect                 -                 link              hardLink     missing    -          -          -                 -                 -
capture d/f                       capture-file-read          changed           changed           changed      missing    changed    changed    changed           changed           changed
capture d/t                       capture-directory-read     changedDirectory  changedDirectory  ?            missing    ?          ?          changedDirectory  changedDirectory  ?`);

const APPEARS = lines(`
  the call                            at                         a file            a directory       a link
  exists d/n                          pre-effect                 -                 -                 outside
  write d/n NEW                       pre-effect                 -                 outside           outside
  write d/n NEW stage                 before-file-rename         -                 storage           -
  create d/n NEW                      pre-effect                 exists            exists            outside
  append d/n 0 0 NEW                  append-leaf-open           -                 storage           outside
  ensureDirectory d/n                 pre-effect                 outside           -                 outside
  move d/f d/n                        pre-effect                 exists            exists            outside
  ensureRelativeSymlink d/n d         pre-effect                 entry             entry             entry
  publishVerified fd:d/f d/f d/n OLD  publish-before-validation  exists            exists            exists
  capture d                           capture-directory-read     changedDirectory  changedDirectory  changedDirectory`);

const changesOf = ([[, , ...how], ...rows]) =>
  rows.flatMap(([call, point, ...outcomes]) =>
    how
      .map((change, i) => [
        `${call}: ${change} at ${point}`,
        COPIES,
        call,
        point,
        change,
        outcomes[i],
      ])
      .filter((row) => row.at(-1) !== '?'),
  );

const changes = [...changesOf(CHANGED), ...changesOf(APPEARS)];

each('the leaf changes', changes, (ctx, call, point, how, expected) => {
  const [, name] = how.startsWith('a ') ? ['', 'n'] : call.match(/d\/(.)/);
  const change = nth(0, () => void CHANGES[how](ctx.at('d', name)));
  // Opening for append makes a missing file, which stays when it is then refused.
  const left = how === 'gone' && call.startsWith('append') ? MADE : {};
  // Clocks of file systems tick slowly: only an old time is sure to change.
  for (const at of ['d', 'd/f', 'd/t']) fs.utimesSync(ctx.at(at), 1, 1);
  expectCall(expected, ctx, call, { [point]: change }, left);
  if (how === 'linked') assert.equal(fs.readFileSync(ctx.at("d/f'"), 'utf8'), OLD);
});
