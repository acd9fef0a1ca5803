'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const test = require('node:test');
const { OLD, lines, symlink, assertTree } = require('./support/harness.js');
const { withHook, thrownBy, expectCall, cases } = require('./support/harness.js');
const { identityOf } = require('./support/scenarios.js');
const tarvek = require('./support/tarvek.js');

const EXPORTS =
  `open openRoot openRelative close rootIdentity exists list capture snapshot read write
  create append ensureDirectory ensureRelativeSymlink remove removeIfEquals move publishVerified
  setTestHook exchangeForTest`.split(/\s+/);

test('the module has just its functions, in order, which nobody can replace or enumerate', () => {
  const properties = Object.getOwnPropertyDescriptors(tarvek);
  assert.deepEqual(Reflect.ownKeys(properties), EXPORTS);
  for (const [name, { value, ...flags }] of Object.entries(properties)) {
    assert.equal(typeof value, 'function', name);
    assert.deepEqual(flags, { writable: false, enumerable: false, configurable: false }, name);
  }
  assert.notEqual(tarvek.open, tarvek.openRoot);
});

const PLACES = { a: { '...': { f: OLD } }, ünï: {}, f: '', link: symlink('a') };
const OPENED = lines(`
  outside  @f  @f/d  @link  @link/...  =/proc/self  =/proc/self/fd
  missing  @nothing  @nothing/d
  -        @a  @a/...  @ünï  =/proc`);

cases('handles', PLACES, {
  'open and openRoot take a directory, never through a link': (ctx) => {
    for (const [expected, ...words] of OPENED) {
      for (const call of words.flatMap((word) => [`open ${word}`, `openRoot ${word}`])) {
        const handle = expectCall(expected, ctx, call);
        if (handle) tarvek.close(handle);
      }
    }
  },
  'the identity is two BigInts, in order, and taken once': ({ handle, root, base }) => {
    const identity = Object.entries(tarvek.rootIdentity(handle));
    assert.deepEqual(identity, Object.entries(identityOf(root)));
    fs.renameSync(root, `${base}/elsewhere`);
    fs.mkdirSync(root);
    assert.deepEqual(Object.entries(tarvek.rootIdentity(handle)), identity);
    assert.equal(tarvek.exists(handle, ['a']), true, 'the handle follows its directory');
  },
  'closing gives the descriptor back once': (ctx) => {
    const handle = tarvek.openRoot(ctx.root);
    assert.equal(tarvek.close(handle), undefined);
    const reused = ctx.open(ctx.root);
    assert.equal(tarvek.close(handle), undefined);
    assert.equal(fs.fstatSync(reused).isDirectory(), true);
    expectCall('closed', ctx, ['rootIdentity', [handle]]);
  },
  'only a handle can be closed': (ctx) => {
    for (const args of [[], [undefined], [null], [{}], [3], ['x'], [ctx.handle, ctx.handle]]) {
      expectCall('storage', ctx, ['close', args]);
    }
    assert.equal(tarvek.exists(ctx.handle, ['a']), true);
  },
  'a handle and the one that it was opened from do not need each other': ({ handle }) => {
    const inner = tarvek.openRelative(handle, ['a', '...']);
    tarvek.close(tarvek.openRelative(handle, ['a', '...']));
    tarvek.close(handle);
    assert.equal(String(tarvek.read(inner, ['f'])), OLD);
    tarvek.close(inner);
  },
});

const EXCHANGED = { a: 'x', 'b\\': { f: 'y' }, c: 'z' };

cases('exchangeForTest', EXCHANGED, {
  'two entries of any type change places; a name ends at its NUL': (ctx) => {
    const { ino } = identityOf(ctx.at('a'));
    tarvek.exchangeForTest(ctx.handle, 'a', 'b\\');
    assert.equal(identityOf(ctx.at('b\\')).ino, ino);
    tarvek.exchangeForTest(ctx.handle, 'a\0b', 'c\0');
    assertTree({ a: 'z', 'b\\': 'x', c: { f: 'y' } });
    for (const names of ['=a =nothing', '=nothing =a', '=\0 =a']) {
      expectCall('missing', ctx, `exchangeForTest ${names}`);
    }
  },
});

const EVENTS = [
  { point: 'ancestor-open', segment: 'a', index: 0 },
  { point: 'ancestor-open', segment: 'b', index: 1 },
  { point: 'pre-effect', segment: 'c', index: 2 },
].map(Object.entries);
const into = (events) => (event) => void events.push(Object.entries(event));
const exists = (handle) => tarvek.exists(handle, ['a', 'b', 'c']);

const NESTED = { a: { b: { c: OLD } } };

cases('setTestHook', NESTED, {
  'the callback gets one plain object, and the global object as this': ({ handle }) => {
    const events = [];
    const hook = function (...args) {
      assert.deepEqual([this === globalThis, args.length], [true, 1]);
      assert.equal(Object.getPrototypeOf(args[0]), Object.prototype);
      into(events)(args[0]);
    };
    withHook(hook, () => exists(handle));
    assert.deepEqual(events, EVENTS);
  },
  'there is one for every handle, the last that was set': ({ handle }) => {
    const [first, second] = [[], []];
    const inner = tarvek.openRelative(handle, ['a']);
    assert.equal(tarvek.setTestHook(into(first)), undefined);
    assert.equal(tarvek.setTestHook(into(second), 'ignored'), undefined);
    tarvek.exists(inner, ['b']);
    exists(handle);
    tarvek.close(inner);
    assert.deepEqual([first, second.length, second.slice(1)], [[], 4, EVENTS]);
  },
  'nothing, undefined and null remove it, and so does what is refused': ({ handle }) => {
    const events = [];
    for (const args of [[], [undefined], [null], [42], ['f'], [{}], [true], [Symbol('f')], [1n]]) {
      tarvek.setTestHook(into(events));
      const { thrown } = thrownBy(() => tarvek.setTestHook(...args));
      assert.equal(thrown?.code, args[0] == null ? undefined : 'FILESYSTEM_FAILURE');
      exists(handle);
    }
    assert.deepEqual(events, []);
  },
  'it can be replaced and removed while it runs': ({ handle }) => {
    const [followed, removed] = [[], []];
    const replace = () => tarvek.setTestHook(into(followed));
    const remove = (event) => into(removed)(event) ?? tarvek.setTestHook();
    for (const hook of [replace, remove]) withHook(hook, () => exists(handle));
    assert.deepEqual([followed, removed], [EVENTS.slice(1), EVENTS.slice(0, 1)]);
  },
});
