'use strict';

// Every operation that touches the disk, where it succeeds: in the root, three levels deep, with
// its ancestors missing where it makes them, over existing entries where it takes them. What each
// one calls, and which points it fires, is listed by its name in test/calls/.
//
//   name                 the call in words (see harness.js), and behind a comma what it meets
//   operation, call      name of the exported function; the words alone, for prepare()
//   before, after        the layouts beneath the root; `mutates`: whether they differ
//   paths                its segment arrays, first walked first; they share no directory
//   check(result, ctx)   asserts the result and releases it
//   listing              its lines there (see calls.js)
//   hooks                of these the points that fire, as { point, segment, index, notes }, and
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
  'exists leaf, a directory': { before: [{}], result: true, flat: true },
  'exists leaf, nothing': { result: false, flat: true },
  'read leaf': { before: [OLD], result: BYTES.OLD },
  'list leaf': { before: [TREE], result: ['f', 's'] },
  'capture leaf': { before: [TREE], check: captured },
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

const beneath = (directories, name, content, wrap = (layout) => layout) =>
  directories.reduceRight((inner, at) => ({ [at]: wrap(inner) }), { [name]: content });

const hooksIn = (lines) =>
  lines.flatMap(({ text, notes }) => {
    const [kind, point, segment, index] = text.split(' ');
    if (kind === 'stage') return [{ point, notes }];
    const above = point === 'root-ancestor-open' ? place.depth : 0;
    const name = segment === '""' ? '' : segment;
    return kind === 'hook' ? [{ point, segment: name, index: Number(index) + above, notes }] : [];
  });

function scenario(row, near, far, missing = false) {
  const [words, what] = row.split(', ');
  const { before = [], after = before, result, check } = ROWS[row];
  const leaf = [...near, 'leaf'];
  const other = [...far, 'other'];
  const paths = words.includes('other') ? [leaf, other] : [leaf];
  const call = words.replace(/leaf/g, leaf.join('/')).replace('other', other.join('/'));
  const name = [call, what, missing && 'its ancestors missing'].filter(Boolean).join(', ');
  // Only the ancestors of the last path are ever missing.
  const layout = (contents, made, wrap) => {
    const [first, second] = typeof contents === 'function' ? contents(leaf, other) : contents;
    if (paths.length === 1) return made ? beneath(near, 'leaf', first, wrap) : {};
    return { ...beneath(near, 'leaf', first), ...(made && beneath(far, 'other', second, wrap)) };
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
const places = ([row, { flat, makes }]) => [
  scenario(row, [], []),
  ...(flat ? [] : [scenario(row, NEAR, FAR)]),
  ...(makes ? [scenario(row, NEAR, FAR, true)] : []),
];
const scenarios = Object.entries(ROWS).flatMap(places);
const name = 'exists a/b/leaf, an ancestor missing';
scenarios.push({
  ...scenario('exists leaf, a file', NEAR, FAR),
  ...{ name, before: { a: {} }, after: { a: {} }, check: (is) => assert.equal(is, false) },
  ...{ listing: listing(name), hooks: hooksIn(listing(name)) },
});

module.exports = { scenarios, identityOf, TREE };
