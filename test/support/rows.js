'use strict';

// The rows that hold for every entry of the package, made from the files of test/operations/. A row
// is an array: its name, the layout on which it starts, and the rest.

const assert = require('node:assert/strict');
const path = require('node:path');
const { cellsOf, place } = require('./harness.js');
const { OLD, fifo, fresh, hardlink, nest, socket, symlink } = require('./layouts.js');
const { expand, parse } = require('./listings.js');
const { operations } = require('./operations.js');

const fromEach = (toRows) => [...operations.values()].flatMap((operation) => toRows(operation));

// The hook points and stages in a listing. A hook point is { point, segment, index }, a stage is
// { point }. Both have the notes of their line.
function hooksIn(listing) {
  const marked = listing.filter(({ text }) => /^(hook|stage) /.test(text));
  return marked.map(({ text, notes }) => {
    const [kind, point, segment, index] = text.split(' ');
    if (kind === 'stage') return { event: { point }, notes };
    const above = point === 'root-ancestor-open' ? place.depth : 0;
    const name = segment === '""' ? '' : segment;
    return { event: { point, segment: name, index: Number(index) + above }, notes };
  });
}

// A successful call. `near` and `far` are the names of the directories above its leaf and above its
// other path.
function makeScenario(row, { before = [], after = before, ...definition }, near, far, isMissing) {
  const [template, what] = row.split(', ');
  const leaf = [...near, 'leaf'].join('/');
  const other = [...far, 'other'].join('/');
  const hasOther = template.includes('other');
  const call = template.replaceAll('leaf', leaf).replaceAll('other', other);
  const link = path.relative(path.join('/', ...far), path.join('/', leaf));
  const [beforeLeaf, beforeOther] = typeof before === 'function' ? before(link) : before;
  const [afterLeaf, afterOther] = typeof after === 'function' ? after(link) : after;
  // `wrap` is for the parent directories of the last path. Only these can be missing.
  const layoutOf = (atLeaf, atOther, wrap) => {
    if (!hasOther) return nest(near, { leaf: atLeaf }, wrap);
    return { ...nest(near, { leaf: atLeaf }), ...nest(far, { other: atOther }, wrap) };
  };
  const withoutParents = hasOther ? nest(near, { leaf: beforeLeaf }) : {};
  const words = {
    NEAR: near.join('/') || '.',
    FAR: far.join('/') || '.',
    '#NEAR': near.length,
    '#FAR': far.length,
    LINK: link,
    SIZE: link.length + 1,
    MAKE: isMissing ? 'made' : 'make',
  };
  const listing = expand(parse(definition.calls), words);
  return {
    name: [call, what, isMissing ? 'parents missing' : undefined].filter(Boolean).join(', '),
    operation: template.split(' ')[0],
    call,
    leaf,
    other: hasOther ? other : undefined,
    // The listing of a row in the root is the same with fewer directories.
    isDeep: near.length > 0,
    mutates: after !== before,
    before: isMissing ? withoutParents : layoutOf(beforeLeaf, beforeOther),
    after: layoutOf(afterLeaf, afterOther, isMissing ? fresh : undefined),
    check(result, ctx) {
      if (definition.check) definition.check(result, ctx, leaf);
      else assert.deepEqual(result, definition.result);
    },
    words,
    listing,
    hooks: hooksIn(listing),
  };
}

// Of different depths, so that a mistake of one for the other shows.
const NEAR = ['a', 'b'];
const FAR = ['d'];

// Every scenario on entries in the root and in directories below it, with and without these.
const scenarios = fromEach(({ scenarios: rows = {} }) =>
  Object.entries(rows).flatMap(([row, definition]) => {
    const inRoot = makeScenario(row, definition, [], [], false);
    const variants = [inRoot, makeScenario(row, definition, NEAR, FAR, false)];
    if (definition.makes) variants.push(makeScenario(row, definition, NEAR, FAR, true));
    return variants;
  }),
);

const KINDS = {
  'a symlink': [symlink('file'), symlink('tree'), symlink('nowhere')],
  'a hard link': [hardlink('twin')],
  special: [fifo(), socket()],
  'a directory': [{ g: '' }],
  'a file': [OLD],
  nothing: [undefined],
};
const AROUND = { file: OLD, tree: { f: OLD }, twin: OLD };

// Calls on an entry of each kind at the leaf d/f, and above it, at d: [name, layout, call, outcome].
const kinds = fromEach(({ kinds: text = '' }) => {
  const [[, ...heads], ...rows] = cellsOf(text);
  return rows.flatMap(([call, ...cells]) => {
    const [nothing, noParent] = cells.slice(-2);
    // The outcomes if d itself is of a kind: with a directory there, nothing is at d/f.
    const above = { nothing: noParent, 'a directory': nothing };
    return heads.slice(0, -1).flatMap((kind, column) =>
      KINDS[kind].flatMap((entry, i) => {
        const atLeaf = { ...AROUND, d: { ...AROUND, f: entry } };
        const atParent = { ...AROUND, d: entry };
        return [
          [`${call}, d/f is ${kind} ${i}`, atLeaf, call, cells[column]],
          [`${call}, d is ${kind} ${i}`, atParent, call, above[kind] ?? 'outside'],
        ];
      }),
    );
  });
});

// The symlinks l/0, l/1 and so on: l/0 is the right one for the target a, and l/1 for l/d.
const TEXTS = ['../a', '../l/d', 'a', './../a', '../a/', '../A', '../ax', '../../a', 'd'];
const ENTRIES = {
  a: { '...': { f: OLD } },
  ünï: {},
  'b\\': '',
  f: OLD,
  twin: OLD,
  l: { ...TEXTS.map(symlink), d: {} },
};

// Calls with arguments that fit or do not fit the disk or each other: [name, layout, call, outcome].
const fitting = fromEach(({ outcomes: text = '' }) =>
  cellsOf(text).flatMap(([expected, ...calls]) =>
    calls.map((call) => [`${call}, ${expected}`, ENTRIES, call, expected]),
  ),
);

module.exports = { scenarios, kinds, fitting };
