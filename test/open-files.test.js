'use strict';

// What openFile opens, read with a limit, publications and their recovery, and the progress of capture.

const assert = require('node:assert/strict');
const { AsyncLocalStorage } = require('node:async_hooks');
const { createHash } = require('node:crypto');
const fs = require('node:fs');
const { open } = require('node:fs/promises');
const path = require('node:path');
const { mock, test } = require('node:test');
const { errorOf, failureOf } = require('../promises/failures.js');
const promises = require('../promises/index.js');
const leftovers = require('../promises/leftovers.js');
const { readAtMost } = require('../promises/open-file.js');
const publications = require('../promises/publish.js');
const walk = require('../promises/walk.js');
const { inRoot, outcomeOf } = require('./support/async-root.js');
const { assertTree, expectOutcome, place, table, thrownBy } = require('./support/harness.js');
const { OLD, build, fifo, fresh, hardlink, symlink, treeOf } = require('./support/layouts.js');
const tarvek = require('./support/tarvek.js');

const { finishPublish, openFile, publishFile, read, removeLeftovers } = promises;

test('an open file stays the same file, and reads like any other', () =>
  inRoot({ d: { f: OLD } }, async (root) => {
    const below = await promises.openRelative(root, ['d']);
    const file = await openFile(below, ['f']);
    await promises.close(below);
    fs.renameSync(place.at('d', 'f'), place.at('g'));
    const { buffer } = await file.read(Buffer.alloc(5), 0, 5, 4);
    assert.equal(String(buffer), OLD.slice(4, 9));
    await promises.publishVerified(root, file.fd, ['g'], ['h'], Buffer.from(OLD));
    const pieces = await file.createReadStream({ start: 0 }).toArray();
    assert.equal(String(Buffer.concat(pieces)), OLD);
  }));

test('read refuses a file that is larger than its limit', () =>
  inRoot({ f: OLD, large: Buffer.alloc(2 ** 20, 'x') }, async (root) => {
    for (const maxBytes of [OLD.length, OLD.length + 0.5, Number.MAX_VALUE, undefined]) {
      assert.equal(String(await read(root, ['f'], { maxBytes })), OLD, maxBytes);
    }
    for (const maxBytes of [OLD.length - 1, 0, -1, Number.NaN, Number.POSITIVE_INFINITY, '99']) {
      expectOutcome('storage', await outcomeOf(read(root, ['f'], { maxBytes })));
    }
    const large = await read(root, ['large'], { maxBytes: 2 ** 20 });
    assert.deepEqual(large, fs.readFileSync(place.at('large')));
  }));

test('the walk must end in the directory of the handle, without a symlink on the way', () =>
  inRoot({ d: { e: {} }, other: { e: {} }, link: symlink('d') }, () => {
    for (const name of ['other', 'link']) {
      const handle = tarvek.openRoot(place.at('d', 'e'));
      assert.throws(() => walk.openRecord(handle, place.at(name, 'e')), /./, name);
    }
  }));

// Makes a call of `promises/` in this thread, on a record of walk.js. Returns its outcome.
function onRecord(call) {
  return thrownBy(() => {
    const record = walk.openRecord(tarvek.openRoot(place.root), place.root);
    try {
      return call(record);
    } finally {
      walk.closeRecord(record);
    }
  });
}

const expectFailure = (expected, { thrown }) =>
  expectOutcome(expected, { thrown: errorOf(failureOf(thrown)) });

function replace(at, successor) {
  fs.renameSync(at, `${at}~`);
  build(at, successor);
}

// Makes a call. Another entry takes the place of this one right before a call of node:fs uses it.
function replacedBefore(method, at, successor, call) {
  const original = fs[method];
  mock.method(fs, method, (name, ...rest) => {
    if (path.basename(String(name)) === path.basename(at)) {
      mock.restoreAll();
      replace(at, successor);
    }
    return original(name, ...rest);
  });
  const outcome = onRecord(call);
  mock.restoreAll();
  return outcome;
}

const SUCCESSORS = {
  'a symlink': symlink('twin'),
  'a hard link': hardlink('twin'),
  'a FIFO': fifo(),
  'an equal file': OLD,
};

table('a file is replaced before it is opened, by', Object.entries(SUCCESSORS), (successor) =>
  inRoot({ f: OLD, twin: OLD }, () => {
    const call = (record) => readAtMost(record, ['f'], 100);
    expectFailure('outside', replacedBefore('openSync', place.at('f'), successor, call));
  }),
);

const hashOf = (content) => createHash('sha256').update(content).digest('hex');
const DENIED = ['existsSync', 'openSync'].map((method) => [`${method} fails`, method]);

table('without /proc, a root is opened, and what needs it fails', DENIED, (method) =>
  inRoot({ f: OLD }, () => {
    const original = fs[method];
    mock.method(fs, method, (at, ...rest) => {
      if (!String(at).startsWith('/proc')) return original(at, ...rest);
      throw Object.assign(new Error(at), { code: 'ERR_ACCESS_DENIED' });
    });
    // It looks for /proc once, when it is loaded.
    const file = require.resolve('../promises/walk.js');
    delete require.cache[file];
    const { openRecord } = require(file);
    const record = openRecord(tarvek.openRoot(place.root), place.root);
    mock.restoreAll();
    const publish = () => publications.publishFile(record, 0, ['f'], ['g'], hashOf(OLD));
    const finish = () => publications.finishPublish(record, ['f'], ['g']);
    for (const call of [publish, finish]) expectOutcome('storage', thrownBy(call));
    walk.closeRecord(record);
  }),
);

const temporary = (digit) => `.tarvek-12-3-${digit.repeat(32)}`;
const FROM = ['s', 'c'];
const TO = ['n', 'd'];
const candidate = place.at(...FROM);
const linked = (at) => fs.linkSync(candidate, at);
const replacedBy = (layout) => () => replace(candidate, layout);

// How the call ends, and what differs from a call that succeeds.
const REFUSALS = {
  'other content': ['candidate', { sha256: hashOf('other') }],
  'a candidate that grew': ['candidate', { before: () => fs.appendFileSync(candidate, 'x') }],
  'a second hard link': ['candidate', { before: () => linked(`${candidate}~`) }],
  'a renamed candidate': ['candidate', { before: replacedBy(undefined) }],
  'an equal file in its place': ['candidate', { before: replacedBy(OLD) }],
  'a writable file': ['candidate', { flags: 'r+' }],
  'a descriptor with O_PATH': ['candidate', { flags: 0o10000000 }],
  'an open directory': ['candidate', { opened: place.at('s') }],
  'a closed file': ['outside', { before: (file) => file.close() }],
  'a number as the file': ['outside', { toFile: (file) => file.fd }],
  'a negative number': ['outside', { toFile: () => ({ fd: -1 }) }],
  'a number beyond 32 bits': ['outside', { toFile: ({ fd }) => ({ fd: fd - 2 ** 32 }) }],
  'a wrong candidate': ['outside', { from: ['s', '..', 's', 'c'] }],
  'a wrong destination': ['outside', { to: [] }],
  'a taken destination': ['exists', { to: ['taken'] }],
  'a missing directory': ['missing', { from: ['nowhere', 'c'] }],
  'no hash': ['storage', { sha256: undefined }],
  'half a hash': ['storage', { sha256: hashOf(OLD).slice(32) }],
};

// Returns the outcome and the disk before the call.
async function publish(root, changes) {
  const { opened = candidate, flags = 'r', before = () => {}, toFile = (file) => file } = changes;
  const { from = FROM, to = TO, sha256 } = { sha256: hashOf(OLD), ...changes };
  const file = await open(opened, flags);
  await before(file);
  const image = treeOf(place.root);
  const outcome = await outcomeOf(publishFile(root, toFile(file), from, to, { sha256 }));
  await file.close();
  return { outcome, image };
}

table('publishFile refuses', Object.entries(REFUSALS), ([expected, changes]) =>
  inRoot({ s: { c: OLD }, taken: '', n: {} }, async (root) => {
    const { outcome, image } = await publish(root, changes);
    expectOutcome(expected, outcome);
    assert.deepEqual(treeOf(place.root), image);
  }),
);

const CONTENTS = [
  ['a few bytes', OLD],
  ['3 MiB', Buffer.alloc(3 * 2 ** 20, 'a piece')],
];

table('publishFile gives a file its final name', CONTENTS, (content) =>
  inRoot({ s: { c: content } }, async (root) => {
    const sha256 = hashOf(content).toUpperCase();
    expectOutcome('-', (await publish(root, { sha256, to: ['n', 'm', 'd'] })).outcome);
    assertTree({ s: {}, n: fresh({ m: fresh({ d: content }) }) });
  }),
);

const s = { c: OLD };
const n = { d: OLD };
// What is on the disk and how finishPublish ends. It changes something in the first case only.
const FOUND = {
  'both names': ['published', { s, n: { d: linked } }, { s: {}, n }],
  'the candidate': ['candidate', { s, n: {} }],
  'the destination': ['published', { s: {}, n }],
  'the destination alone': ['published', { n }],
  'no name': ['nothing', { s: {}, n: {} }],
  'no directory': ['nothing', {}],
  'two files': ['exists', { s, n }],
  'a file and a symlink to it': ['exists', { s, n: { d: symlink('../s/c') } }],
  'three names': ['outside', { s, n: { d: linked, more: linked } }],
  'a candidate with another name': ['outside', { s, more: linked }],
  'a symlink': ['outside', { s: { c: symlink('x') } }],
  'one symlink with both names': ['outside', { s: { c: symlink('x') }, n: { d: linked } }],
  'a FIFO': ['outside', { n: { d: fifo() } }],
  'a symlink to the directory': ['outside', { n, s: symlink('n') }],
};

table('finishPublish finds', Object.entries(FOUND), ([expected, layout, after]) =>
  inRoot(layout, async (root) => {
    const image = treeOf(place.root);
    const outcome = await outcomeOf(finishPublish(root, FROM, TO));
    if ('result' in outcome) assert.equal(outcome.result, expected);
    else expectOutcome(expected, outcome);
    if (after) assertTree(after);
    else assert.deepEqual(treeOf(place.root), image);
  }),
);

test('finishPublish refuses wrong names, and two paths to one entry', () =>
  inRoot({ s: { 'c\uFFFD': OLD, more: hardlink('c\uFFFD') } }, async (root) => {
    const image = treeOf(place.root);
    for (const one of [['s', 'c\uFFFD'], ['s', 'c\uD800'], [], ['s', '..'], ['s/c'], undefined]) {
      expectOutcome('outside', await outcomeOf(finishPublish(root, one, ['s', 'c\uDC00'])));
      expectOutcome('outside', await outcomeOf(finishPublish(root, ['s', 'c\uDC00'], one)));
    }
    assert.deepEqual(treeOf(place.root), image);
  }));

// What changes or flushes names, and what else can fail.
const CHANGING = ['linkSync', 'unlinkSync', 'fsyncSync'];
const ALL = [...CHANGING, 'openSync', 'fstatSync', 'lstatSync', 'readSync', 'readdirSync'];

// Makes a call in this thread. Returns its outcome, and the calls of these functions of node:fs that
// succeeded. The calls whose number `isFailing` accepts fail.
function watched(functions, isFailing, call) {
  const made = [];
  let count = 0;
  for (const name of functions) {
    const original = fs[name];
    mock.method(fs, name, (at, ...rest) => {
      if (isFailing(++count)) throw Object.assign(new Error(at), { code: 'EIO' });
      const where = fs.realpathSync.native(typeof at === 'number' ? `/proc/self/fd/${at}` : at);
      made.push(`${name} ${path.relative(place.root, where)}`);
      return original(at, ...rest);
    });
  }
  const outcome = onRecord(call);
  mock.restoreAll();
  return { outcome, made };
}

const readHere = (record) => readAtMost(record, FROM, 100);
const finishHere = (record) => publications.finishPublish(record, FROM, TO);
const sweepHere = (record) => leftovers.removeLeftovers(record, ['s'], 0);
function publishHere(record) {
  const file = fs.openSync(candidate);
  try {
    publications.publishFile(record, file, FROM, TO, hashOf(OLD));
  } finally {
    fs.closeSync(file);
  }
}

const CALLS = [
  ['read with a limit', readHere, { s, n: {} }],
  ['publishFile', publishHere, { s, n: {} }],
  ['finishPublish', finishHere, { s, n: { d: linked } }],
  ['removeLeftovers', sweepHere, { s: { e: { [temporary('a')]: '' }, f: {} } }],
];

table('whatever call of node:fs fails, all files are closed', CALLS, async (call, layout) => {
  let isFailing = true;
  for (let number = 1; isFailing; ++number) {
    await inRoot(layout, () => {
      const { outcome } = watched(ALL, (nth) => nth === number, call);
      isFailing = 'thrown' in outcome;
    });
  }
});

const FINISHING = ['fsyncSync n', 'unlinkSync s/c', 'fsyncSync s'];
const PUBLISHING = ['fsyncSync s/c', 'linkSync s/c', ...FINISHING];
const steps = [...PUBLISHING, 'the end'].map((step, index) => [step, index + 1]);

// What a process does not do after it was killed.
table('a publication that ends before call', steps, (number) =>
  inRoot({ s, n: {} }, async (root) => {
    const { made } = watched(CHANGING, (nth) => nth >= number, publishHere);
    assert.deepEqual(made, PUBLISHING.slice(0, number - 1));
    const isLinked = number > 2;
    assert.equal(await finishPublish(root, FROM, TO), isLinked ? 'published' : 'candidate');
    assertTree(isLinked ? { s: {}, n } : { s, n: {} });
  }),
);

table('a publication in which one call fails is done or undone', steps, (number) =>
  inRoot({ s, n: {} }, () => {
    const { outcome } = watched(CHANGING, (nth) => nth === number, publishHere);
    if (number <= PUBLISHING.length) expectFailure('storage', outcome);
    else expectOutcome('-', outcome);
    assertTree(number < PUBLISHING.length ? { s, n: {} } : { s: {}, n });
  }),
);

test('a candidate that is replaced before it is linked is not published', () =>
  inRoot({ s, n: {} }, () => {
    expectFailure('storage', replacedBefore('linkSync', candidate, OLD, publishHere));
    assertTree({ s: { c: OLD, 'c~': OLD }, n: {} });
  }));

test('finishPublish flushes the new name before it removes the old one', () =>
  inRoot({ s, n: { d: linked } }, () => {
    assert.deepEqual(watched(CHANGING, () => false, finishHere).made, FINISHING);
  }));

const KEPT = {
  [temporary('c')]: 'young',
  [temporary('d')]: symlink(temporary('c')),
  [temporary('e')]: fifo(),
  [temporary('f')]: {},
  [`${temporary('a')}0`]: '',
  '.tarvek-12-3-0': '',
  twins: { [temporary('a')]: '', [temporary('b')]: hardlink(temporary('a')) },
};
const around = (old) => ({ d: { ...old, ...KEPT, e: { ...old, f: old } } });

test('removeLeftovers removes old temporary files at any depth and nothing else', () =>
  inRoot({ ...around({ [temporary('a')]: 'half' }), loop: symlink('d') }, async (root) => {
    const sweep = (olderThan, ...names) => outcomeOf(removeLeftovers(root, names, { olderThan }));
    const old = Object.keys(treeOf(place.at('d'))).filter((at) => !at.includes(temporary('d')));
    for (const at of old) fs.utimesSync(place.at('d', at), 1, 1);
    fs.utimesSync(place.at('d', temporary('c')), 1, Date.now() / 1000 - 50);
    for (const olderThan of [undefined, -1]) expectOutcome('storage', await sweep(olderThan, 'd'));
    expectOutcome('missing', await sweep(0, 'x'));
    for (const names of [['loop'], []]) expectOutcome('outside', await sweep(0, ...names));
    const removed = expectOutcome('-', await sweep(60_000, 'd'));
    const expected = ['d', 'd/e', 'd/e/f'].map((at) => `${at}/${temporary('a')}`);
    assert.deepEqual(removed.sort(), expected.sort());
    assertTree({ ...around({}), loop: symlink('d') });
    assert.deepEqual(await sweep(10_000, 'd'), { result: [`d/${temporary('c')}`] });
  }));

test('removeLeftovers flushes the directories that it changed', () =>
  inRoot({ s: { e: { [temporary('a')]: '' }, f: {} } }, () => {
    const expected = [`unlinkSync s/e/${temporary('a')}`, 'fsyncSync s/e'];
    assert.deepEqual(watched(CHANGING, () => false, sweepHere).made, expected);
  }));

// Files of 8 MiB that take no room on the disk, but a while to read.
const sparse = (at) => {
  fs.writeFileSync(at, '');
  fs.truncateSync(at, 8 * 2 ** 20);
};
const SLOW = Object.fromEntries(Array.from({ length: 20 }, (_, i) => [`f${i}`, sparse]));

test('capture tells how far it is, at most ten times a second, where it was called', () =>
  inRoot({ d: SLOW }, async (root) => {
    const storage = new AsyncLocalStorage();
    const told = [];
    const onProgress = (progress) => {
      assert.equal(storage.getStore(), 'mine');
      told.push(progress);
    };
    const start = performance.now();
    // A fast machine has nothing to tell of some captures.
    while (told.length === 0) {
      const records = await storage.run('mine', promises.capture, root, [['d']], { onProgress });
      assert.equal(records.length, 21);
    }
    assert.ok(told.length <= (performance.now() - start) / 100, `${told.length} times`);
    for (const [index, { files, directories, path: at, ...others }] of told.entries()) {
      assert.match(at, /^d(\/f\d+)?$/);
      assert.ok(files > (told[index - 1]?.files ?? 0), `${files} files`);
      assert.ok(directories <= 1, `${directories} directories`);
      assert.deepEqual(others, {});
    }
    const mine = new Error('what onProgress throws');
    const throwing = () => {
      throw mine;
    };
    let outcome = {};
    while (!outcome.thrown) {
      outcome = await outcomeOf(promises.capture(root, [['d']], { onProgress: throwing }));
    }
    assert.equal(outcome.thrown, mine);
    assert.equal((await promises.capture(root, [['d']])).length, 21);
    const wrong = promises.capture(root, [['d']], { onProgress: 1 });
    expectOutcome('storage', await outcomeOf(wrong));
  }));
