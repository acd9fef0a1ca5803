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
const { openRecord } = require('../promises/walk.js');
const { inRoot, outcomeOf } = require('./support/async-root.js');
const { assertTree, expectOutcome, place, table, thrownBy } = require('./support/harness.js');
const { OLD, build, fifo, fresh, hardlink } = require('./support/layouts.js');
const { sparse, symlink, treeOf } = require('./support/layouts.js');
const tarvek = require('./support/tarvek.js');

const { capture, finishPublish, openFile, publishFile, read, removeLeftovers } = promises;

test('read refuses a file that is larger than its limit', () =>
  inRoot({ f: OLD }, async (root) => {
    for (const maxBytes of [OLD.length, OLD.length + 0.5, Number.MAX_VALUE, undefined]) {
      assert.equal(String(await read(root, ['f'], { maxBytes })), OLD, maxBytes);
    }
    for (const maxBytes of [OLD.length - 1, 0, -1, Number.NaN, Number.POSITIVE_INFINITY, '99']) {
      expectOutcome('storage', await outcomeOf(read(root, ['f'], { maxBytes })));
    }
  }));

test('the walk must end in the directory of the handle, without a symlink on the way', () =>
  inRoot({ d: { e: {} }, other: { e: {} }, link: symlink('d') }, () => {
    for (const name of ['other', 'link']) {
      const handle = tarvek.openRoot(place.at('d', 'e'));
      const opening = () => openRecord(handle, place.at(name, 'e'));
      assert.throws(opening, { code: /OUT_OF_ROOT|ELOOP|ENOTDIR/ }, name);
    }
  }));

const FROM = ['s', 'c'];
const TO = ['n', 'd'];
const candidate = place.at(...FROM);
// The directories of the candidate and of the destination, with the file in them.
const s = { c: OLD };
const n = { d: OLD };
const linked = hardlink('../s/c');
const hashOf = (content) => createHash('sha256').update(content).digest('hex');
const temporary = (digit) => `.tarvek-12-3-${digit.repeat(32)}`;

function replaceCandidate(successor) {
  fs.renameSync(candidate, `${candidate}~`);
  build(candidate, successor);
}

// Makes a call in this thread, on a record of walk.js. Calls `before(name, at)` before each call of
// these functions of node:fs. Returns the outcome.
function intercepted(functions, before, call) {
  for (const name of functions) {
    const original = fs[name];
    mock.method(fs, name, (at, ...rest) => {
      before(name, at);
      return original(at, ...rest);
    });
  }
  const outcome = thrownBy(() => {
    const walk = require('../promises/walk.js');
    const record = walk.openRecord(tarvek.openRoot(place.root), place.root);
    try {
      return call(record);
    } finally {
      walk.closeRecord(record);
    }
  });
  mock.restoreAll();
  return outcome;
}

// The functions that `promises/` runs in a thread.
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

const expectFailure = (expected, { thrown }) =>
  expectOutcome(expected, { thrown: errorOf(failureOf(thrown)) });

const DENIED = ['existsSync', 'openSync'].map((method) => [`${method} fails`, method]);

table('without /proc, a root is opened, and what needs it fails', DENIED, (method) =>
  inRoot({ s, n: {} }, () => {
    const deny = (_, at) => {
      if (!String(at).startsWith('/proc')) return;
      throw Object.assign(new Error(at), { code: 'ERR_ACCESS_DENIED' });
    };
    // It looks for /proc once, when it is loaded.
    delete require.cache[require.resolve('../promises/walk.js')];
    for (const call of [readHere, publishHere]) {
      const { result } = intercepted([method], deny, (record) => thrownBy(() => call(record)));
      expectOutcome('storage', result);
    }
  }),
);

// The call before which another entry takes the place of the candidate.
const REPLACED = [
  ['opened, by an equal file', 'openSync', OLD, readHere, 'outside'],
  ['opened, by a second link to it', 'openSync', hardlink('c~'), readHere, 'outside'],
  ['opened, by a FIFO', 'openSync', fifo(), readHere, 'outside'],
  ['linked, by an equal file', 'linkSync', OLD, publishHere, 'storage'],
];

table('a file is replaced before it is', REPLACED, (method, successor, call, expected) =>
  inRoot({ s, n: {} }, () => {
    const replace = (_, at) => {
      if (path.basename(String(at)) !== 'c') return;
      mock.restoreAll();
      replaceCandidate(successor);
    };
    expectFailure(expected, intercepted([method], replace, call));
    assert.deepEqual(fs.readdirSync(place.at('n')), []);
  }),
);

// How the call ends, and what differs from a call that succeeds.
const REFUSALS = {
  'other content': ['candidate', { sha256: hashOf('other') }],
  'a second hard link': ['candidate', { before: () => fs.linkSync(candidate, `${candidate}~`) }],
  'a renamed candidate': ['candidate', { before: () => replaceCandidate(undefined) }],
  'an equal file in its place': ['candidate', { before: () => replaceCandidate(OLD) }],
  'a writable file': ['candidate', { flags: 'r+' }],
  'a descriptor with O_PATH': ['candidate', { flags: 0o10000000 }],
  'a closed file': ['outside', { before: (file) => file.close() }],
  'a number beyond 32 bits': ['outside', { toFile: ({ fd }) => ({ fd: fd - 2 ** 32 }) }],
  'a wrong candidate': ['outside', { from: ['s', '..'] }],
  'a wrong destination': ['outside', { to: [] }],
  'a taken destination': ['exists', { to: ['taken'] }],
  'half a hash': ['storage', { sha256: hashOf(OLD).slice(32) }],
};

table('publishFile refuses', Object.entries(REFUSALS), ([expected, changes]) =>
  inRoot({ s, n: {}, taken: '' }, async (root) => {
    const { flags = 'r', before = () => {}, toFile = (opened) => opened } = changes;
    const { from, to, sha256 } = { from: FROM, to: TO, sha256: hashOf(OLD), ...changes };
    const file = await open(candidate, flags);
    await before(file);
    const image = treeOf(place.root);
    const publishing = publishFile(root, toFile(file), from, to, { sha256 });
    expectOutcome(expected, await outcomeOf(publishing));
    assert.deepEqual(treeOf(place.root), image);
    await file.close();
  }),
);

test('publishFile gives a file its final name', () => {
  const content = Buffer.alloc(3 * 2 ** 20, 'a piece');
  return inRoot({ s: { c: content } }, async (root) => {
    const file = await openFile(root, FROM);
    const sha256 = hashOf(content).toUpperCase();
    await publishFile(root, file, FROM, ['n', 'm', 'd'], { sha256 });
    await file.close();
    assertTree({ s: {}, n: fresh({ m: fresh({ d: content }) }) });
  });
});

// How finishPublish ends and what is on the disk, before it and after it.
const FOUND = {
  'both names': ['published', { s, n: { d: linked } }, { s: {}, n }],
  'the candidate': ['candidate', { s, n: {} }],
  'the destination': ['published', { n }],
  'no name': ['nothing', {}],
  'two files': ['OPTIMISTIC_CONFLICT', { s, n }],
  'a file and a symlink to it': ['OPTIMISTIC_CONFLICT', { s, n: { d: symlink('../s/c') } }],
  'three names': ['PATH_OUT_OF_ROOT', { s, n: { d: linked, more: linked } }],
  'a candidate with another name': ['PATH_OUT_OF_ROOT', { s, n: { more: linked } }],
  'one symlink with both names': ['PATH_OUT_OF_ROOT', { s: { c: symlink('x') }, n: { d: linked } }],
  'a symlink to the directory': ['PATH_OUT_OF_ROOT', { n, s: symlink('n') }],
};

table('finishPublish finds', Object.entries(FOUND), ([expected, layout, after = layout]) =>
  inRoot(layout, async (root) => {
    const found = await finishPublish(root, FROM, TO).catch(({ code }) => code);
    assert.equal(found, expected);
    assertTree(after);
  }),
);

test('finishPublish refuses wrong names, and two paths to one entry', () =>
  inRoot({ s: { 'c\uFFFD': OLD, more: hardlink('c\uFFFD') } }, async (root) => {
    for (const one of [['s', 'c\uFFFD'], [], ['s', '..']]) {
      expectOutcome('outside', await outcomeOf(finishPublish(root, one, ['s', 'c\uDC00'])));
      expectOutcome('outside', await outcomeOf(finishPublish(root, ['s', 'c\uDC00'], one)));
    }
    assert.deepEqual(fs.readdirSync(place.at('s')), ['c\uFFFD', 'more']);
  }));

// What changes or flushes names, and what else can fail.
const CHANGING = ['linkSync', 'unlinkSync', 'fsyncSync'];
const ALL = [...CHANGING, 'openSync', 'fstatSync', 'lstatSync', 'readSync', 'readdirSync'];

// Makes a call, and the calls of node:fs fail whose number `isFailing` accepts. Returns the outcome,
// and those that changed or flushed names.
function failing(functions, isFailing, call) {
  const changes = [];
  let count = 0;
  const before = (name, at) => {
    if (isFailing(++count)) throw Object.assign(new Error(at), { code: 'EIO' });
    if (!CHANGING.includes(name)) return;
    const where = fs.realpathSync.native(typeof at === 'number' ? `/proc/self/fd/${at}` : at);
    changes.push(`${name} ${path.relative(place.root, where)}`);
  };
  return { outcome: intercepted(functions, before, call), changes };
}

const FINISHING = ['fsyncSync n', 'unlinkSync s/c', 'fsyncSync s'];
const PUBLISHING = ['fsyncSync s/c', 'linkSync s/c', ...FINISHING];
const SWEEPING = [`unlinkSync s/e/${temporary('a')}`, 'fsyncSync s/e'];
// Each with the changes that it makes.
const CALLS = [
  ['read with a limit', readHere, { s, n: {} }, []],
  ['publishFile', publishHere, { s, n: {} }, PUBLISHING],
  ['finishPublish', finishHere, { s, n: { d: linked } }, FINISHING],
  ['removeLeftovers', sweepHere, { s: { e: { [temporary('a')]: '' }, f: {} } }, SWEEPING],
];

table('flushes are in order, failures close all files', CALLS, async (call, layout, expected) => {
  let isFailing = true;
  for (let number = 1; isFailing; ++number) {
    await inRoot(layout, () => {
      const { outcome, changes } = failing(ALL, (nth) => nth === number, call);
      isFailing = 'thrown' in outcome;
      if (!isFailing) assert.deepEqual(changes, expected);
    });
  }
});

const steps = [...PUBLISHING, 'the end'].map((step, index) => [step, index + 1]);

// What a process does not do after it was killed.
table('a publication that ends before call', steps, (number) =>
  inRoot({ s, n: {} }, async (root) => {
    failing(CHANGING, (nth) => nth >= number, publishHere);
    const isLinked = PUBLISHING.slice(0, number - 1).includes('linkSync s/c');
    assert.equal(await finishPublish(root, FROM, TO), isLinked ? 'published' : 'candidate');
    assertTree(isLinked ? { s: {}, n } : { s, n: {} });
  }),
);

table('a publication in which one call fails is done or undone', steps, (number) =>
  inRoot({ s, n: {} }, () => {
    const { outcome } = failing(CHANGING, (nth) => nth === number, publishHere);
    if (number <= PUBLISHING.length) expectFailure('storage', outcome);
    assertTree(number < PUBLISHING.length ? { s, n: {} } : { s: {}, n });
  }),
);

const aged = (seconds) => (at) => {
  fs.writeFileSync(at, '');
  fs.utimesSync(at, 1, Date.now() / 1000 - seconds);
};
const KEPT = {
  [temporary('d')]: symlink('e'),
  [temporary('e')]: fifo(),
  [`${temporary('a')}0`]: '',
  '.tarvek-12-3-0': '',
  twins: { [temporary('a')]: '', [temporary('b')]: hardlink(temporary('a')) },
};

test('removeLeftovers removes old temporary files at any depth and nothing else', () => {
  const old = { [temporary('a')]: aged(70) };
  const young = { [temporary('c')]: aged(50) };
  const around = (above, inner) => ({ loop: symlink('d'), d: { ...above, ...KEPT, e: inner } });
  return inRoot(around({ ...old, ...young }, { ...old, f: old }), async (root) => {
    const sweep = (olderThan, ...names) => outcomeOf(removeLeftovers(root, names, { olderThan }));
    for (const olderThan of [undefined, -1]) expectOutcome('storage', await sweep(olderThan, 'd'));
    for (const names of [['loop'], []]) expectOutcome('outside', await sweep(0, ...names));
    const removed = expectOutcome('-', await sweep(60_000, 'd'));
    const expected = ['d', 'd/e', 'd/e/f'].map((at) => `${at}/${temporary('a')}`);
    assert.deepEqual(removed.sort(), expected.sort());
    assertTree(around(young, { f: {} }));
    assert.deepEqual(await sweep(0, 'd'), { result: [`d/${temporary('c')}`] });
    assertTree(around({}, { f: {} }));
  });
});

const slow = sparse(8 * 2 ** 20);
const SLOW = Object.fromEntries(Array.from({ length: 20 }, (_, i) => [`f${i}`, slow]));

test('capture tells how far it is, at most ten times a second, where it was called', () =>
  inRoot({ d: SLOW }, async (root) => {
    const storage = new AsyncLocalStorage();
    let told = 0;
    const onProgress = ({ files, directories, path: at }) => {
      told += 1;
      assert.equal(storage.getStore(), 'mine');
      assert.match(`${files} ${directories} ${at}`, /^\d+ [01] d(\/f\d+)?$/);
    };
    const start = performance.now();
    // A fast machine has nothing to tell of some captures.
    while (told === 0) {
      await storage.run('mine', capture, root, [['d']], { onProgress });
    }
    assert.ok(told <= (performance.now() - start) / 100, `${told} times`);
    const mine = new Error('what onProgress throws');
    const throwing = () => {
      throw mine;
    };
    let outcome = {};
    while (!outcome.thrown) {
      outcome = await outcomeOf(capture(root, [['d']], { onProgress: throwing }));
    }
    assert.equal(outcome.thrown, mine);
    assert.equal((await capture(root, [['d']])).length, 21);
  }));
