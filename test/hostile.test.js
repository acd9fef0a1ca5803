'use strict';

// Every operation on a hostile disk: entries that it must refuse, and changes at each of its hook
// points and stages. The tests compare the outcome and the whole disk.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const { isExternal } = require('node:util').types;
const { OLD, lines, symlink, hardlink, fifo, socket, build } = require('./support/harness.js');
const { assertTree, prepare, attempt, expectPassedOn } = require('./support/harness.js');
const { expectCall, each } = require('./support/harness.js');
const { scenarios } = require('./support/scenarios.js');
const tarvek = require('./support/tarvek.js');

const successes = scenarios.map((scenario) => [scenario.name, scenario.before, scenario]);

each('each operation succeeds, even if its hook calls the module', successes, (ctx, row) => {
  let isInside = false;
  const hook = () => {
    if (isInside) return;
    isInside = true;
    tarvek.close(tarvek.openRoot(ctx.root));
    isInside = false;
  };
  row.check(expectCall('-', ctx, row.call, hook), ctx);
  assertTree(row.after);
});

// Each swap renames the directory: if it were removed and created again, it could get its old inode
// number, and no check could see the swap. The decoys contain what the operation looks for.
const SWAPS = {
  'by another directory': (directory, decoy) => fs.renameSync(decoy, directory),
  'by a symlink to another directory': (directory, decoy) => fs.symlinkSync(decoy, directory),
  'by a symlink to itself': (directory, _, away) => fs.symlinkSync(away, directory),
  'by nothing': () => {},
};
const swapOf = (name, swap, layout) => (ctx) => {
  const [outside, away] = ['outside', 'away'].map((one) => path.join(ctx.base, one));
  const decoy = path.join(outside, name);
  build(outside, layout);
  fs.mkdirSync(decoy, { recursive: true });
  fs.renameSync(ctx.at(name), away);
  swap(ctx.at(name), decoy, away);
};

// The bytes of a call get memory of their own, which a hook can transfer ("gone") or, except in old
// versions of Node, resize. Memory that grew still holds the bytes.
const LENGTHS = ArrayBuffer.prototype.resize ? ['gone', 0, 2, 30] : ['gone'];
const changeMemory = (length) => (ctx) =>
  length === 'gone'
    ? structuredClone(ctx.memory, { transfer: [ctx.memory] })
    : ctx.memory.resize(length);
function prepareWithMemory(ctx, call) {
  const [operation, args] = prepare(ctx, call);
  const withMemory = args.map((value) => {
    if (!Buffer.isBuffer(value)) return value;
    ctx.memory = new ArrayBuffer(value.length, { maxByteLength: 64 });
    new Uint8Array(ctx.memory).set(value);
    return new Uint8Array(ctx.memory);
  });
  return [operation, withMemory];
}

// The attacks of a hook or a stage at one point of a scenario, as [name, attack, outcome].
function attacksAt(notes, { call, before }) {
  const directories = Object.keys(notes).filter((name) => name.endsWith('/'));
  const swaps = directories.flatMap((name) =>
    Object.entries(SWAPS).map(([how, swap]) => {
      return [`${name} swapped ${how}`, swapOf(name.slice(0, -1), swap, before), notes[name]];
    }),
  );
  const memoryAttacks = LENGTHS.map((length) => {
    return [`bytes: ${length}`, changeMemory(length), length > OLD.length ? '-' : notes.bytes];
  });
  const close = ['handle closed', (ctx) => tarvek.close(ctx.handle), notes.close];
  return [...swaps, close, ...(/ (OLD|NEW)/.test(call) ? memoryAttacks : [])];
}
const points = scenarios.flatMap((scenario) =>
  scenario.hooks.map(({ notes, ...point }) => ({ scenario, point, notes })),
);
const when = (point, act) => (event) =>
  Object.keys(event).every((key) => event[key] === point[key]) ? void act() : undefined;

const attacks = points.flatMap(({ scenario, point, notes }) =>
  attacksAt(notes, scenario).map(([what, ...rest]) => [
    ...[`${scenario.name}: ${what} at ${Object.values(point)}`, scenario.before],
    ...[scenario, point, ...rest],
  ]),
);
each('an attack at any hook ends as listed', attacks, (ctx, row, point, act, expected = '-') => {
  const call = prepareWithMemory(ctx, row.call);
  const attack = when(point, () => act(ctx));
  const result = expectCall(expected, ctx, call, attack);
  if (expected === '-') row.check(result, ctx);
});

const throwing = points.map(({ scenario, point }) => [
  ...[`${scenario.name}: ${Object.values(point)}`, scenario.before, scenario.call, point],
]);
each('what a hook or a stage throws reaches the caller', throwing, (ctx, call, point) =>
  expectPassedOn((thrower) => attempt(ctx, call, when(point, thrower))),
);

// Rows of [name, layout, call, outcome]: a failure that harness.js names, or "-" for success.
// Afterwards the directory `made` exists only if the call names it, and `never` does not exist.
function outcomes(title, rows) {
  each(title, rows, (ctx, call, expected) => {
    const result = expectCall(expected, ctx, call);
    if (isExternal(result)) tarvek.close(result);
    assert.equal(fs.existsSync(ctx.at('made')), call.includes(' made/'), '`made` exists');
    assert.equal(fs.existsSync(ctx.at('never')), false, '`never` exists');
  });
}
// Such rows, all on one layout, from lines of an outcome and calls.
const rowsOf = (layout, text, callOf = (cell) => cell) =>
  lines(text).flatMap(([expected, ...cells]) =>
    cells.map((cell) => [`${cell}: ${expected}`, layout, callOf(cell), expected]),
  );

const KINDS = {
  'a symlink': [symlink('file'), symlink('tree'), symlink('nowhere')],
  'a hard link': [hardlink('twin')],
  special: [fifo(), socket()],
  'a directory': [{ g: '' }],
  'a file': [OLD],
  nothing: [undefined],
};

// The outcome if d/f is a symlink, and so on, and if d is missing.
const [, ...LEAVES] = lines(`
  the call                              a symlink  a hard link  special    a directory  a file     nothing    no parent
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
const kinds = LEAVES.flatMap(([call, ...cells]) =>
  Object.entries(KINDS).flatMap(([kind, contents], column) => {
    const [nothing, noParent] = cells.slice(-2);
    const above = { nothing: noParent, 'a directory': nothing }[kind] ?? 'outside';
    return contents.flatMap((f, i) => [
      [`${call}: ${kind} ${i}`, { ...AROUND, d: { ...AROUND, f } }, call, cells[column]],
      [`${call}: d is ${kind} ${i}`, { ...AROUND, d: f }, call, above],
    ]);
  }),
);

outcomes('a wrong kind of entry at the leaf or above it is refused', kinds);

const BURIED = [symlink('../../f'), symlink('x'), hardlink('../../f'), fifo(), socket()];
const TREES = lines(`
  capture d   link     link     hardLink  special  special
  snapshot d  outside  outside  outside   outside  outside
  remove d    outside  outside  outside   -        -`);
const buried = ([call, ...cells]) =>
  BURIED.map((x, i) => [`${call}: ${x} ${i}`, { f: OLD, d: { s: { x } } }, call, cells[i]]);

outcomes('a wrong kind of entry inside a tree is refused', TREES.flatMap(buried));

// The symlinks l/0, l/1 and so on: l/0 is the right one for the target a, and l/1 for l/d.
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

outcomes('arguments that do not fit the disk or each other are refused', rowsOf(ENTRIES, CALLS));

// Pairs of an expected and a minimum size, for a file of nineteen bytes.
const SIZES = `
  -        0 0  -0 0  4 0  19 0  19 19  19.9 0  -0.9 0  0 -0.9  4.9 4  5 4.9  5.2 5.8  NaN 0  Infinity 0
  append   20 0  20.5 0  20 20  2147483648 0  4294967296 0  4294967315 0  9007199254740994 9  1e300 1e300
  storage  3 5  0 1  19 20  NaN 1  Infinity 1  -1 0  0 -1  -1 -1  -1 -2  -1e300 0  9007199254740992 1e300`;
const sizes = rowsOf({ f: OLD }, SIZES, (pair) => `append f ${pair} NEW`);
outcomes('append cuts its sizes to whole numbers and checks them', sizes);

// What another process does to the file d/f or the directory d/t, each with a copy beside it, or at
// d/n, which is missing at first.
const CHANGES = {
  replaced: (at) => fs.renameSync(at, `${at}~`) ?? fs.renameSync(`${at}'`, at),
  'made a symlink': (at) => fs.renameSync(at, `${at}~`) ?? fs.symlinkSync(`${at}'`, at),
  'hard-linked': (at) => fs.linkSync(at, `${at}~`),
  gone: (at) => fs.renameSync(at, `${at}~`),
  truncated: (at) => fs.truncateSync(at, 3),
  'a file': (at) => fs.writeFileSync(at, OLD),
  'a directory': (at) => fs.mkdirSync(at),
  'a symlink': (at) => fs.symlinkSync('f', at),
};

// After its last check, a call does not notice a change. "?" does not apply to a directory.
const CHANGED = lines(`
  the call                          at                         replaced          made a symlink    hard-linked  gone       truncated
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
  the call                            at                         a file            a directory       a symlink
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
  rows.flatMap(([call, point, ...cells]) =>
    hows.map((how, i) => [`${call}: ${how} at ${point}`, COPIES, call, point, how, cells[i]]),
  );
const changes = [...changesOf(CHANGED), ...changesOf(APPEARS)].filter((row) => row.at(-1) !== '?');

each('a changed leaf is refused if a check follows', changes, (ctx, call, point, how, expected) => {
  const name = how.startsWith('a ') ? 'n' : /d\/(.)/.exec(call)[1];
  const once = [() => CHANGES[how](ctx.at('d', name))];
  const act = (event) => void (event.point === point && once.pop()?.());
  // Opening for append creates a missing file. It stays if the call then refuses it.
  const left = how === 'gone' && call.startsWith('append') ? { 'root/d/f': '100600 1 ' } : {};
  // File system clocks are coarse. Only an old time is sure to change.
  fs.utimesSync(ctx.at('d'), 1, 1);
  expectCall(expected, ctx, call, act, left);
  if (how === 'made a symlink') assert.equal(fs.readFileSync(ctx.at("d/f'"), 'utf8'), OLD);
});
