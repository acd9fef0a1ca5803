'use strict';

// What is measured. A workload is a tree of files and the calls made on it:
//
//   name, operation, kind   `kind` groups workloads for the targets
//   level                   how many segments its paths have
//   medium                  'memory' for CPU time on a tmpfs, 'disk' for wall time on a disk
//   floor                   the operation's name in floor.cc
//   subjects                what the module is compared with
//   layout()                the tree: an object is a directory, anything else is a file's content
//   calls(place)            argument lists without the handle; `place.at(...names)` is a path
//   once                    its calls change the tree, which is written again before every round
//   shared                  its calls only read, and all subjects use one tree
//
// A workload of kind 'memory' has no calls and no subjects: its `payload` is the number of bytes
// that the result holds, and the peak of the process's memory is compared with that. The calls of kind
// 'promises' are in promises.js, and `other` is what they are compared with.

const fs = require('node:fs');

const BODY = Buffer.alloc(100, 'x');
const KIB = 1024;
const MIB = 1024 ** 2;
const LEVELS = ['one', 'two', 'three', 'four', 'five'];
const LEAVES_USED_UP = { memory: 100, disk: 10 };
const ALL = ['floor', 'node:fs', 'JavaScript only'];
const PER_FILE = 'itself at 1,000 files';

const numbered = (count, prefix, content) =>
  Object.fromEntries(Array.from({ length: count }, (_, i) => [`${prefix}${i}`, content]));
const beneath = (directories, content) =>
  directories.reduceRight((inner, name) => ({ [name]: inner }), content);
const filled = (size) => Buffer.alloc(size, 'f');
// Directories with a thousand files each; the last one has the rest.
function tree(files, size) {
  const body = filled(size);
  const rest = files % 1000 || 1000;
  const full = numbered(Math.ceil(files / 1000) - 1, 'directory', numbered(1000, 'file-', body));
  return { ...full, last: numbered(rest, 'file-', body) };
}

// The calls share one descriptor: it stays open on the file when the name changes.
function publications(leaf, other, place) {
  place.candidate ??= fs.openSync(place.at(...leaf), 'r');
  return [
    [place.candidate, leaf, other, BODY],
    [place.candidate, other, leaf, BODY],
  ];
}

// Operation, content of the leaf, calls. `other` is a second name in the leaf's directory. A file that
// is moved to it is moved back.
const REPEATED = [
  ['openRoot', {}, (leaf, _, place) => [[place.at(...leaf)]]],
  ['openRelative', {}, (leaf) => [[leaf]]],
  ['exists', BODY, (leaf) => [[leaf]]],
  ['read', BODY, (leaf) => [[leaf]]],
  ['list', numbered(10, 'name', BODY), (leaf) => [[leaf]]],
  ['write', BODY, (leaf) => [[leaf, BODY]]],
  ['append', BODY, (leaf) => [[leaf, 0, 0, BODY]]],
  ['ensureDirectory, existing', {}, (leaf) => [[leaf]]],
  [
    'move',
    BODY,
    (leaf, other) => [leaf, other].map((from) => [from, from === leaf ? other : leaf]),
  ],
  ['publishVerified', BODY, publications],
  ['capture', BODY, (leaf) => [[[leaf]]]],
  ['snapshot', { file: BODY }, (leaf) => [[leaf]]],
];
const ONCE = [
  ['create', undefined, (leaf) => [leaf, BODY]],
  ['ensureDirectory', undefined, (leaf) => [leaf]],
  ['ensureRelativeSymlink', undefined, (leaf, target) => [leaf, target]],
  ['remove', BODY, (leaf) => [leaf]],
  ['remove, a directory', numbered(10, 'name', BODY), (leaf) => [leaf]],
  ['removeIfEquals', BODY, (leaf) => [leaf, BODY]],
];

function small([name, content, calls], level, medium) {
  const once = !REPEATED.some(([repeated]) => repeated === name);
  const directories = LEVELS.slice(0, level - 1);
  const leaves = Object.keys(numbered(once ? LEAVES_USED_UP[medium] : 1, 'leaf', 0));
  const paths = leaves.map((leaf) => [...directories, leaf]);
  const other = [...directories, 'other'];
  const entries = content ? leaves.map((leaf) => [leaf, content]) : [];
  if (name === 'ensureRelativeSymlink') entries.push(['other', {}]);
  const operation = name.split(',')[0];
  return {
    name: `${name}, ${level === 1 ? 'one level' : 'six levels'}`,
    operation,
    kind: 'small',
    level,
    medium,
    once,
    floor: name === 'remove, a directory' ? operation : name,
    subjects: name === 'write' ? [...ALL, 'write-file-atomic'] : ALL,
    layout: () => beneath(directories, Object.fromEntries(entries)),
    calls: (place) =>
      once ? paths.map((leaf) => calls(leaf, other)) : calls(paths[0], other, place),
  };
}

// One call on an entry named `leaf`. `content` is a function, since it may take much memory.
function onLeaf(name, content, more) {
  const operation = name.split(' ')[0];
  const calls = () => [operation === 'capture' ? [[['leaf']]] : [['leaf']]];
  const fixed = { name, operation, floor: operation, calls, level: 1, medium: 'memory' };
  const layout = () => ({ leaf: content() });
  return { ...fixed, kind: 'bulk', shared: true, subjects: ALL, layout, ...more };
}

const counted = (number) => number.toLocaleString('en');

function onTree(operation, files) {
  const subjects = files > 50_000 ? ALL.slice(0, 2) : ALL;
  const name = `${operation} of ${counted(files)} files of 1 KiB`;
  const content = () => tree(files, KIB);
  const workload = onLeaf(name, content, { kind: 'tree', files, subjects });
  if (operation !== 'capture' || files < 200_000) return workload;
  const layout = () => ({ ...workload.layout(), small: tree(1000, KIB) });
  return { ...workload, layout, subjects: [...subjects, PER_FILE] };
}

const onFile = (size, bytes) =>
  onLeaf(`read of ${size}`, () => filled(bytes), { kind: bytes < 16 * KIB ? 'one file' : 'bulk' });

const peakMemory = (operation, size, payload, content) => ({
  name: `peak memory of ${operation} of ${size}`,
  operation,
  kind: 'memory',
  payload,
  medium: 'memory',
  layout: () => ({ leaf: content() }),
});

// Name, what it is compared with, content of the leaf.
const PROMISES = [
  ['200 writes of 1 MiB at once', 'fs/promises', () => ({})],
  ['1,000 writes of 4 KiB at once', 'fs/promises', () => ({})],
  ['2,000 reads of 1 KiB in turn', 'fs/promises', () => ({ 0: filled(KIB) })],
  ['2,000 reads of 1 KiB at once', 'fs/promises', () => ({ 0: filled(KIB) })],
  ['64 reads of 8 MiB at once', 'fs/promises', () => numbered(64, '', filled(8 * MIB))],
  ['capture of 10,000 files, longest block', 'synchronous call', () => tree(10_000, KIB)],
  ['write of 32 MiB, longest block', 'synchronous call', () => ({})],
  ['memory of a thread', '10 MiB', () => ({})],
];
const ofPromises = ([name, other, content]) => ({
  name,
  other,
  operation: 'promises',
  kind: 'promises',
  level: 1,
  medium: 'disk',
  layout: () => ({ leaf: content() }),
});

function workloads(quick) {
  const onDisk = ([name]) => ['write', 'create', 'append', 'move'].includes(name);
  const inMemory = [...REPEATED, ...ONCE];
  const trees = quick ? [1000] : [1000, 10_000, 50_000, 200_000];
  return [
    ...[1, 6].flatMap((level) => inMemory.map((workload) => small(workload, level, 'memory'))),
    ...[1, 6].flatMap((level) =>
      inMemory.filter(onDisk).map((workload) => small(workload, level, 'disk')),
    ),
    onFile('4 KiB', 4 * KIB),
    onFile('64 KiB', 64 * KIB),
    ...[1, 8, 64].map((size) => onFile(`${size} MiB`, size * MIB)),
    ...[1000, 20_000].map((names) =>
      onLeaf(`list of ${counted(names)} names`, () => numbered(names, 'name-', ''), {
        kind: 'names',
      }),
    ),
    ...['capture', 'snapshot'].flatMap((operation) => [
      ...trees.map((files) => onTree(operation, files)),
      onLeaf(`${operation} of 1,000 files of 64 KiB`, () => tree(1000, 64 * KIB)),
      onLeaf(`${operation} of 200 files of 1 MiB`, () => tree(200, MIB)),
    ]),
    ...PROMISES.map(ofPromises),
    peakMemory('read', '256 MiB', 256 * MIB, () => filled(256 * MIB)),
    peakMemory('capture', '1 GiB', 1024 * MIB, () => tree(1024, MIB)),
    peakMemory('snapshot', '1 GiB', 1024 * MIB, () => tree(1024, MIB)),
  ];
}

module.exports = { workloads, onTree, PER_FILE };
