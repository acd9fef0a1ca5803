'use strict';

// Successful calls of every operation that touches the disk: on an entry directly in the root, three
// levels deep, with missing parent directories if the operation creates them, and on an existing
// entry if it accepts one. test/calls/ lists the system calls and hook points of each by its name.
//
//   name                 the call in words (see harness.js), and after a comma what it finds on disk
//   operation, call      name of the exported function; the words without the comma, for prepare()
//   before, after        the layouts beneath the root; `mutates`: whether they differ
//   paths                its segment arrays in the order of the walks; they share no directory
//   check(result, ctx)   asserts that the result is right; closes it if it is a handle
//   listing              its lines in test/calls/ (see calls.js)
//   hooks                the hook points among these lines, as { point, segment, index, notes }, and
//                        the stages of a write, as { point, notes }

const assert = require('node:assert/strict');
const fs = require('node:fs');
const { listing } = require('./calls.js');
const { OLD, BYTES, symlink, fresh, place } = require('./harness.js');
const tarvek = require('./tarvek.js');

const NEW = fresh(BYTES.NEW);
const TREE = { f: 'one', s: { g: 'two' } };
const FILES = { f: Buffer.from('one'), 's/g': Buffer.from('two') };

function identityOf(at) {
  const { dev, ino } = fs.statSync(at, { bigint: true });
  return { dev, ino };
}
const checkOpened = (handle, ctx, leaf) => {
  assert.deepEqual(tarvek.rootIdentity(handle), identityOf(ctx.at(...leaf)));
  tarvek.close(handle);
};
const checkCaptured = (records, _, leaf) => {
  const directory = (path) => ({ path, type: 'directory', mode: 0o755 });
  const file = ([name, body]) => ({ path: `${top}/${name}`, type: 'file', mode: 0o644, body });
  const top = leaf.join('/');
  const [f, g] = Object.entries(FILES).map(file);
  assert.deepEqual(records, [directory(top), f, directory(`${top}/s`), g]);
};
// The second path is the symlink that leads to the first.
const linked = (leaf, other) => [TREE, symlink([...other.slice(1).fill('..'), ...leaf].join('/'))];

// `before` and `after`: what is at the leaf, and at the other path if the call names two. `makes`: the
// call creates missing parent directories. `flat`: test the call in the root only.
const ROWS = {
  'openRoot @leaf': { before: [{}], check: checkOpened },
  'openRelative leaf': { before: [TREE], check: checkOpened },
  'exists leaf, a file': { before: [OLD], result: true },
  'exists leaf, a directory': { before: [{}], result: true, flat: true },
  'exists leaf, nothing': { result: false, flat: true },
  'read leaf': { before: [OLD], result: BYTES.OLD },
  'list leaf': { before: [TREE], result: ['f', 's'] },
  'capture leaf': { before: [TREE], check: checkCaptured },
  'snapshot leaf': { before: [TREE], result: Object.assign(Object.create(null), FILES) },
  'write leaf NEW, nothing': { after: [NEW], makes: true },
  'write leaf NEW, a file': { before: [OLD], after: [NEW], flat: true },
  'write leaf NEW stage, a file': { before: [OLD], after: [NEW] },
  'create leaf NEW, nothing': { after: [NEW], makes: true },
  'append leaf 0 0 NEW, nothing': { after: [NEW], makes: true },
  'append leaf 19 4 NEW, a file': { before: [OLD], after: [OLD + BYTES.NEW] },
  'ensureDirectory leaf, nothing': { after: [fresh({})], makes: true },
  'ensureDirectory leaf, a directory': { before: [TREE], flat: true },
  'remove leaf, a file': { before: [OLD], after: [], flat: true },
  'remove leaf, a directory': { before: [{ s: { g: 'two' } }], after: [] },
  'removeIfEquals leaf OLD': { before: [OLD], after: [] },
  'move leaf other, a file': { before: [OLD], after: [undefined, OLD], makes: true },
  'move leaf other, a directory': { before: [TREE], after: [undefined, TREE], flat: true },
  'ensureRelativeSymlink other leaf': { before: [TREE], after: linked, result: true, makes: true },
  'ensureRelativeSymlink other leaf, itself': { before: linked, result: false, flat: true },
  'exchangeForTest =leaf =other': { before: [OLD, TREE], after: [TREE, OLD], flat: true },
  'publishVerified fd:leaf leaf other OLD': { before: [OLD], after: [undefined, OLD], makes: true },
};

const nest = (directories, name, content, wrap = (layout) => layout) =>
  directories.reduceRight((inner, at) => ({ [at]: wrap(inner) }), { [name]: content });

const hooksIn = (lines) =>
  lines.flatMap(({ text, notes }) => {
    const [kind, point, segment, index] = text.split(' ');
    if (kind === 'stage') return [{ point, notes }];
    const above = point === 'root-ancestor-open' ? place.depth : 0;
    const name = segment === '""' ? '' : segment;
    return kind === 'hook' ? [{ point, segment: name, index: Number(index) + above, notes }] : [];
  });

// `near` and `far` are the parent directories of the leaf and of the other path.
function scenario(row, near, far, missing = false) {
  const [words, what] = row.split(', ');
  const { before = [], after = before, result, check } = ROWS[row];
  const leaf = [...near, 'leaf'];
  const other = [...far, 'other'];
  const paths = words.includes('other') ? [leaf, other] : [leaf];
  const call = words.replace(/leaf/g, leaf.join('/')).replace('other', other.join('/'));
  const name = [call, what, missing && 'its ancestors missing'].filter(Boolean).join(', ');
  // Only the parent directories of the last path can be missing.
  const layout = (contents, hasParents, wrap) => {
    const [first, second] = typeof contents === 'function' ? contents(leaf, other) : contents;
    if (paths.length === 1) return hasParents ? nest(near, 'leaf', first, wrap) : {};
    return { ...nest(near, 'leaf', first), ...(hasParents && nest(far, 'other', second, wrap)) };
  };
  return {
    ...{ name, operation: words.split(' ')[0], call, paths, mutates: after !== before },
    before: layout(before, !missing),
    after: layout(after, true, missing ? fresh : undefined),
    check: (actual, ctx) => (check ? check(actual, ctx, leaf) : assert.deepEqual(actual, result)),
    ...{ listing: listing(name), hooks: hooksIn(listing(name)) },
  };
}

const NEAR = ['a', 'b'];
const FAR = ['c', 'd'];
const variants = ([row, { flat, makes }]) => [
  scenario(row, [], []),
  ...(flat ? [] : [scenario(row, NEAR, FAR)]),
  ...(makes ? [scenario(row, NEAR, FAR, true)] : []),
];
const scenarios = Object.entries(ROWS).flatMap(variants);
const name = 'exists a/b/leaf, an ancestor missing';
scenarios.push({
  ...scenario('exists leaf, a file', NEAR, FAR),
  ...{ name, before: { a: {} }, after: { a: {} }, check: (result) => assert.equal(result, false) },
  ...{ listing: listing(name), hooks: hooksIn(listing(name)) },
});

module.exports = { scenarios, identityOf, TREE };
