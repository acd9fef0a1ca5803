'use strict';

// Every operation that touches the disk, where it succeeds: in the root, three levels deep, with
// its ancestors missing where it makes them, over existing entries where it takes them.
//
//   name                 the call in words (see harness.js), and behind a comma what it meets
//   operation, call      name of the exported function; the words alone, for prepare()
//   before, after        the layouts beneath the root; `mutates`: whether they differ
//   missing              whether ancestors are missing before
//   paths                its segment arrays, first walked first; they share no directory
//   check(result, ctx)   asserts the result and releases it
//   hooks                every point that fires, in order, as [point, segment, index]; the stages
//                        of a write, which come last, as [stage]

const assert = require('node:assert/strict');
const fs = require('node:fs');
const { OLD, BYTES, lines, symlink, fresh, place } = require('./harness.js');
const tarvek = require('./tarvek.js');

const NEW = fresh(BYTES.NEW);
const TREE = { f: 'one', s: { g: 'two' } };
const FILES = { f: Buffer.from('one'), 's/g': Buffer.from('two') };

function identityOf(at) {
  const { dev, ino } = fs.statSync(at, { bigint: true });
  return { dev, ino };
}
const opened = (handle, ctx, leaf) => {
  assert.deepEqual(tarvek.rootIdentity(handle), identityOf(ctx.at(...leaf)));
  tarvek.close(handle);
};
const captured = (records, _, leaf) => {
  const directory = (path) => ({ path, type: 'directory', mode: 0o755 });
  const file = ([name, body]) => ({ path: `${top}/${name}`, type: 'file', mode: 0o644, body });
  const top = leaf.join('/');
  const [f, g] = Object.entries(FILES).map(file);
  assert.deepEqual(records, [directory(top), f, directory(`${top}/s`), g]);
};
const linked = (leaf, other) => [TREE, symlink([...other.slice(1).fill('..'), ...leaf].join('/'))];

// What is at the leaf, and at the other path of a call that names two, before and after.
const ROWS = {
  'openRoot @leaf': { before: [{}], check: opened },
  'openRelative leaf': { before: [TREE], check: opened },
  'exists leaf, a file': { before: [OLD], result: true },
  'exists leaf, a directory': { before: [{}], result: true },
  'exists leaf, nothing': { result: false },
  'read leaf': { before: [OLD], result: BYTES.OLD },
  'list leaf': { before: [TREE], result: ['f', 's'] },
  'capture leaf': { before: [TREE], check: captured },
  'snapshot leaf': { before: [TREE], result: Object.assign(Object.create(null), FILES) },
  'write leaf NEW, nothing': { after: [NEW], makes: true },
  'write leaf NEW, a file': { before: [OLD], after: [NEW] },
  'write leaf NEW stage, a file': { before: [OLD], after: [NEW] },
  'create leaf NEW, nothing': { after: [NEW], makes: true },
  'append leaf 0 0 NEW, nothing': { after: [NEW], makes: true },
  'append leaf 19 4 NEW, a file': { before: [OLD], after: [OLD + BYTES.NEW] },
  'ensureDirectory leaf, nothing': { after: [fresh({})], makes: true },
  'ensureDirectory leaf, a directory': { before: [TREE] },
  'remove leaf, a file': { before: [OLD], after: [] },
  'remove leaf, a directory': { before: [TREE], after: [] },
  'removeIfEquals leaf OLD': { before: [OLD], after: [] },
  'move leaf other, a file': { before: [OLD], after: [undefined, OLD], makes: true },
  'move leaf other, a directory': { before: [TREE], after: [undefined, TREE], makes: true },
  'ensureRelativeSymlink other leaf': { before: [TREE], after: linked, result: true, makes: true },
  'ensureRelativeSymlink other leaf, itself': { before: linked, result: false },
  'exchangeForTest =leaf =other': { before: [OLD, TREE], after: [TREE, OLD], flat: true },
  'publishVerified fd:leaf leaf other OLD': { before: [OLD], after: [undefined, OLD], makes: true },
};

const steps = (point, names) => names.map((name, index) => [point, name, index]);
const at = (path, points) => points.split(' ').map((one) => [one, path.at(-1), path.length - 1]);
const ordinary = (...paths) => [
  ...paths.flatMap((path) => steps('ancestor-open', path.slice(0, -1))),
  ...paths.flatMap((path) => at(path, 'pre-effect')),
];
const ROOT = place.root.split('/').slice(1);
const EXTERNAL = ['external-create', '', 0];
const READS = lines(`
  capture-file-read  /f
  capture-file-read  /s/g
  capture-directory-read  /s
  capture-directory-read`);
const reading = (leaf, [point, name = '']) => [point, leaf.join('/') + name, 0];
const APPEND = 'append-leaf-open append-write append-data-fsync append-directory-fsync';
const REMOVE = 'remove-if-equals-open remove-if-equals-unlink';
const PUBLISH = 'publish-before-validation';
const STAGES =
  'after-temp-write after-file-sync before-file-rename after-file-rename after-directory-sync';
// Of the operations that fire more, or in another order, than a walk and one look for each path.
const HOOKS = {
  openRoot: (leaf) => [...steps('root-ancestor-open', [...ROOT, ...leaf]), EXTERNAL],
  openRelative: (leaf) => [...steps('relative-directory-open', leaf), EXTERNAL],
  capture: (leaf) => [...ordinary(leaf), ...READS.map((read) => reading(leaf, read))],
  append: (leaf) => [...ordinary(leaf), ...at(leaf, APPEND)],
  removeIfEquals: (leaf) => [...ordinary(leaf), ...at(leaf, REMOVE)],
  ensureRelativeSymlink: (leaf, other) => [...ordinary(leaf), ...ordinary(other)],
  publishVerified: (leaf, other) => [...ordinary(leaf, other), [PUBLISH, leaf.at(-1), 0]],
  exchangeForTest: () => [],
};

const beneath = (directories, name, content, wrap = (layout) => layout) =>
  directories.reduceRight((inner, at) => ({ [at]: wrap(inner) }), { [name]: content });

function scenario(row, near, far, missing = false) {
  const [words, what] = row.split(', ');
  const { before = [], after = before, result, check } = ROWS[row];
  const leaf = [...near, 'leaf'];
  const other = [...far, 'other'];
  const paths = words.includes('other') ? [leaf, other] : [leaf];
  const call = words.replace(/leaf/g, leaf.join('/')).replace('other', other.join('/'));
  const operation = words.split(' ')[0];
  // Only the ancestors of the last path are ever missing.
  const layout = (contents, made, wrap) => {
    const [first, second] = typeof contents === 'function' ? contents(leaf, other) : contents;
    if (paths.length === 1) return made ? beneath(near, 'leaf', first, wrap) : {};
    return { ...beneath(near, 'leaf', first), ...(made && beneath(far, 'other', second, wrap)) };
  };
  const stages = words.endsWith('stage') ? STAGES.split(' ').map((stage) => [stage]) : [];
  return {
    name: [call, what, missing && 'its ancestors missing'].filter(Boolean).join(', '),
    ...{ operation, call, paths, missing, mutates: after !== before },
    before: layout(before, !missing),
    after: layout(after, true, missing ? fresh : undefined),
    check: (actual, ctx) => (check ? check(actual, ctx, leaf) : assert.deepEqual(actual, result)),
    hooks: [...(HOOKS[operation] ?? ordinary)(...paths), ...stages],
  };
}

const NEAR = ['a', 'b'];
const FAR = ['c', 'd'];
const places = ([row, { flat, makes }]) => [
  scenario(row, [], []),
  ...(flat ? [] : [scenario(row, NEAR, FAR)]),
  ...(makes ? [scenario(row, NEAR, FAR, true)] : []),
];
const scenarios = Object.entries(ROWS).flatMap(places);
scenarios.push({
  ...scenario('exists leaf, nothing', NEAR, FAR),
  name: 'exists a/b/leaf, an ancestor missing',
  ...{ before: { a: {} }, after: { a: {} }, hooks: [['ancestor-open', 'a', 0]] },
});

module.exports = { scenarios, identityOf, TREE };
