'use strict';

// What each operation does, and what becomes of it when something else stands where it must not
// act, or when its surroundings change at one of its points. The disk is compared whole.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const { isExternal } = require('node:util').types;
const { OLD, lines, symlink, hardlink, fifo, socket, build } = require('./support/harness.js');
const { assertTree, prepare, attempt, expectThrough } = require('./support/harness.js');
const { expectCall, each } = require('./support/harness.js');
const { scenarios } = require('./support/scenarios.js');
const tarvek = require('./support/tarvek.js');

const whole = scenarios.map((scenario) => [scenario.name, scenario.before, scenario]);

each('operations do what they should, also when the hook calls the module', whole, (ctx, row) => {
  let within = false;
  const hook = () => {
    if (within) return;
    within = true;
    tarvek.close(tarvek.openRoot(ctx.root));
    within = false;
  };
  row.check(expectCall('-', ctx, row.call, hook), ctx);
  assertTree(row.after);
});

// Swaps are renames: a directory that is deleted and made again can come back with its old inode
// number, and then nobody could tell that it was swapped. The decoys hold what the operation wants.
const SWAPS = {
  'by another directory': (directory, decoy) => fs.renameSync(decoy, directory),
  'by a link to another directory': (directory, decoy) => fs.symlinkSync(decoy, directory),
  'by a link to itself': (directory, _, away) => fs.symlinkSync(away, directory),
  'by nothing': () => {},
};
const swapOf = (name, swap, layout) => (ctx) => {
  const [outside, away] = ['outside', 'away'].map((folder) => path.join(ctx.base, folder));
  const decoy = path.join(outside, name);
  build(outside, layout);
  fs.mkdirSync(decoy, { recursive: true });
  fs.renameSync(ctx.at(name), away);
  swap(ctx.at(name), decoy, away);
};

// Passes the bytes in memory that can be transferred or, except on old Nodes, resized. Memory that
// has grown still holds the bytes.
const LENGTHS = ArrayBuffer.prototype.resize ? ['gone', 0, 2, 30] : ['gone'];
const loseTo = (length) => (ctx) =>
  length === 'gone'
    ? structuredClone(ctx.memory, { transfer: [ctx.memory] })
    : ctx.memory.resize(length);
function prepareLosable(ctx, call) {
  const [operation, args] = prepare(ctx, call);
  const losable = args.map((value) => {
    if (!Buffer.isBuffer(value)) return value;
    ctx.memory = new ArrayBuffer(value.length, { maxByteLength: 64 });
    new Uint8Array(ctx.memory).set(value);
    return new Uint8Array(ctx.memory);
  });
  return [operation, losable];
}

// The harm that a hook or a stage does at every point of every scenario, as [name, deed, outcome].
function deedsAt(notes, { call, before }) {
  const directories = Object.keys(notes).filter((name) => name.endsWith('/'));
  const swaps = directories.flatMap((name) =>
    Object.entries(SWAPS).map(([how, swap]) => {
      return [`${name} swapped ${how}`, swapOf(name.slice(0, -1), swap, before), notes[name]];
    }),
  );
  const losses = LENGTHS.map((length) => {
    return [`bytes: ${length}`, loseTo(length), length > OLD.length ? '-' : notes.bytes];
  });
  const close = ['handle closed', (ctx) => tarvek.close(ctx.handle), notes.close];
  return [...swaps, close, ...(/ (OLD|NEW)/.test(call) ? losses : [])];
}
const points = scenarios.flatMap((scenario) =>
  scenario.hooks.map(({ notes, ...point }) => ({ scenario, point, notes })),
);
const when = (point, act) => (event) =>
  Object.keys(event).every((key) => event[key] === point[key]) ? void act() : undefined;

const deeds = points.flatMap(({ scenario, point, notes }) =>
  deedsAt(notes, scenario).map(([what, ...deed]) => [
    ...[`${scenario.name}: ${what} at ${Object.values(point)}`, scenario.before],
    ...[scenario, point, ...deed],
  ]),
);
each('a hook or a stage does harm', deeds, (ctx, row, point, act, expected = '-') => {
  const call = prepareLosable(ctx, row.call);
  const harm = when(point, () => act(ctx));
  const result = expectCall(expected, ctx, call, harm);
  if (expected === '-') row.check(result, ctx);
});

const throwing = points.map(({ scenario, point }) => [
  ...[`${scenario.name}: ${Object.values(point)}`, scenario.before, scenario.call, point],
]);
each('a hook or a stage throws', throwing, (ctx, call, point) =>
  expectThrough((thrower) => attempt(ctx, call, when(point, thrower))),
);

// Rows of [name, layout, call, and a failure that harness.js names, or "-" for success]. The
// directory `made` is there afterwards just if the call names it, and `never` is not.
function ends(title, rows) {
  each(title, rows, (ctx, call, expected) => {
    const result = expectCall(expected, ctx, call);
    if (isExternal(result)) tarvek.close(result);
    assert.equal(fs.existsSync(ctx.at('made')), call.includes(' made/'), 'the way is made');
    assert.equal(fs.existsSync(ctx.at('never')), false, 'no way is made');
  });
}
// The same on one layout, from lines of an outcome and calls.
const rowsOf = (layout, text, callOf = (cell) => cell) =>
  lines(text).flatMap(([expected, ...cells]) =>
    cells.map((cell) => [`${cell}: ${expected}`, layout, callOf(cell), expected]),
  );

const KINDS = {
  'a link': [symlink('file'), symlink('tree'), symlink('nowhere')],
  'a hard link': [hardlink('twin')],
  special: [fifo(), socket()],
  'a directory': [{ g: '' }],
  'a file': [OLD],
  nothing: [undefined],
};

// What comes of it when d/f is a link and so on, and when there is no d.
const [, ...LEAVES] = lines(`
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
const standing = LEAVES.flatMap(([call, ...outcomes]) =>
  Object.entries(KINDS).flatMap(([kind, contents], column) => {
    const [nothing, nowhere] = outcomes.slice(-2);
    const above = { nothing: nowhere, 'a directory': nothing }[kind] ?? 'outside';
    return contents.flatMap((f, i) => [
      [`${call}: ${kind} ${i}`, { ...AROUND, d: { ...AROUND, f } }, call, outcomes[column]],
      [`${call}: d is ${kind} ${i}`, { ...AROUND, d: f }, call, above],
    ]);
  }),
);

ends('at the leaf or above it stands something else', standing);

const BURIED = [symlink('../../f'), symlink('x'), hardlink('../../f'), fifo(), socket()];
const TREES = lines(`
  capture d   link     link     hardLink  special  special
  snapshot d  outside  outside  outside   outside  outside
  remove d    outside  outside  outside   -        -`);
const buried = ([call, ...outcomes]) =>
  BURIED.map((x, i) => [`${call}: ${x} ${i}`, { f: OLD, d: { s: { x } } }, call, outcomes[i]]);

ends('what must not be in a tree is found', TREES.flatMap(buried));

// Links by number: the first stands for a, and the second for l/d.
const TEXTS = ['../a', '../l/d', 'a', './../a', '../a/', '../A', '../ax', '../../a', 'd'];
const l = { ...TEXTS.map(symlink), d: {} };
const ENTRIES = { a: { '...': { f: OLD } }, ünï: {}, 'b\\': '', f: OLD, twin: OLD, l };
const O_PATH = 0o10000000;
const CALLS = `
  outside    openRoot @f  openRoot @f/d  openRoot @l/0  openRoot @l/0/...  openRoot =/proc/self/fd
  missing    openRoot @nothing  openRoot @nothing/d
  -          open @a  openRoot @a/...  openRoot @ünï  openRoot =/proc
  exists     move f f  move a a  publishVerified fd:f f f OLD
  storage    move a a/.../a
  missing    move nothing/f never/x  ensureRelativeSymlink never/x nothing
  missing    publishVerified fd:f nothing/f never/x OLD  move nothing made/x
  outside    move f/f never/x  ensureRelativeSymlink never/x f
  candidate  publishVerified fd:twin f made/x OLD  publishVerified fd:a f made/x OLD
  candidate  publishVerified fd:f:r+ f made/x OLD  publishVerified fd:f:a f made/x OLD
  candidate  publishVerified 99999 f made/x OLD  publishVerified NaN f made/x OLD
  candidate  publishVerified fd:f:${O_PATH} f made/x OLD
  duplicate  capture a a/.../f  capture f f
  missing    exchangeForTest =f =nothing  exchangeForTest =nothing =f  exchangeForTest =\0 =f
  -          exchangeForTest =f\0x =twin\0  exchangeForTest =a =b\\
  -          ensureRelativeSymlink l/0 a  ensureRelativeSymlink l/1 l/d
  entry      ${[2, 3, 4, 5, 6, 7].map((i) => `ensureRelativeSymlink l/${i} a`).join('  ')}
  entry      ensureRelativeSymlink l/8 l/d  ensureRelativeSymlink l/0 l/d`;

ends('the paths, the links and the descriptor must fit together', rowsOf(ENTRIES, CALLS));

// An expected and a minimum size, of a file of nineteen bytes.
const SIZES = `
  -        0 0  -0 0  4 0  19 0  19 19  19.9 0  -0.9 0  0 -0.9  4.9 4  5 4.9  5.2 5.8  NaN 0  Infinity 0
  append   20 0  20.5 0  20 20  2147483648 0  4294967296 0  4294967315 0  9007199254740994 9  1e300 1e300
  storage  3 5  0 1  19 20  NaN 1  Infinity 1  -1 0  0 -1  -1 -1  -1 -2  -1e300 0  9007199254740992 1e300`;
const sizes = rowsOf({ f: OLD }, SIZES, (pair) => `append f ${pair} NEW`);
ends('append takes its sizes as whole numbers', sizes);

// What happens to the file d/f or the directory d/t, which have copies beside them, or at d/n,
// where nothing was.
const CHANGES = {
  replaced: (at) => fs.renameSync(at, `${at}~`) ?? fs.renameSync(`${at}'`, at),
  linked: (at) => fs.renameSync(at, `${at}~`) ?? fs.symlinkSync(`${at}'`, at),
  'named twice': (at) => fs.linkSync(at, `${at}~`),
  gone: (at) => fs.renameSync(at, `${at}~`),
  truncated: (at) => fs.truncateSync(at, 3),
  'a file': (at) => fs.writeFileSync(at, OLD),
  'a directory': (at) => fs.mkdirSync(at),
  'a link': (at) => fs.symlinkSync('f', at),
};

// Behind the last look nothing matters any more. "?" is left out: it cannot be done to a directory.
const CHANGED = lines(`
  the call                          at                         replaced          linked            named twice  gone       truncated
  exists d/f                        pre-effect                 -                 outside           outside      -          -
  read d/f                          pre-effect                 -                 outside           outside      missing    -
  write d/f NEW                     pre-effect                 -                 outside           outside      -          -
  write d/f NEW stage               before-file-rename         -                 -                 -            -          -
  create d/f NEW                    pre-effect                 exists            outside           outside      -          exists
  append d/f 19 0 NEW               pre-effect                 -                 outside           outside      append     append
  append d/f 19 0 NEW               append-leaf-open           outside           outside           outside      outside    append
  append d/f 19 0 NEW               append-write               -                 -                 -            -          -
  remove d/f                        pre-effect                 -                 outside           outside      missing    -
  removeIfEquals d/f OLD            pre-effect                 -                 outside           outside      missing    removal
  removeIfEquals d/f OLD            remove-if-equals-open      removal           outside           removal      missing    removal
  removeIfEquals d/f OLD            remove-if-equals-unlink    removal           removal           removal      removal    removal
  move d/f free                     pre-effect                 -                 outside           outside      missing    -
  publishVerified fd:d/f d/f n OLD  pre-effect                 candidate         candidate         candidate    candidate  candidate
  publishVerified fd:d/f d/f n OLD  publish-before-validation  candidate         candidate         candidate    candidate  candidate
  capture d/f                       pre-effect                 -                 link              hardLink     missing    -
  capture d/f                       capture-file-read          changed           changed           changed      missing    changed
  capture d/t                       capture-directory-read     changedDirectory  changedDirectory  ?            missing    ?`);

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

const COPIES = { d: { f: OLD, "f'": OLD, t: {}, "t'": {} } };
const changesOf = ([[, , ...hows], ...rows]) =>
  rows.flatMap(([call, point, ...outcomes]) =>
    hows.map((how, i) => [`${call}: ${how} at ${point}`, COPIES, call, point, how, outcomes[i]]),
  );
const changes = [...changesOf(CHANGED), ...changesOf(APPEARS)].filter((row) => row.at(-1) !== '?');

each('the leaf changes', changes, (ctx, call, point, how, expected) => {
  const name = how.startsWith('a ') ? 'n' : /d\/(.)/.exec(call)[1];
  const moments = [() => CHANGES[how](ctx.at('d', name))];
  const act = (event) => void (event.point === point && moments.pop()?.());
  // Opening for append makes a missing file, which stays when it is then refused.
  const left = how === 'gone' && call.startsWith('append') ? { 'root/d/f': '100600 1 ' } : {};
  // Clocks of file systems tick slowly: only an old time is sure to change.
  fs.utimesSync(ctx.at('d'), 1, 1);
  expectCall(expected, ctx, call, act, left);
  if (how === 'linked') assert.equal(fs.readFileSync(ctx.at("d/f'"), 'utf8'), OLD);
});
