'use strict';

// Calls every function and asserts what it answers: that the binary works in the runtime that
// loads it. What each function promises is for the tests.

const assert = require('node:assert');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');

const { O_RDONLY, O_NOFOLLOW } = fs.constants;
const bytes = (text) => Buffer.from(text);

function throwsCode(code, call) {
  assert.throws(call, (error) => error instanceof Error && error.code === code, `throws ${code}`);
}

function changeFiles(tarvek, root) {
  const stages = [];
  tarvek.write(root, ['docs', 'a'], bytes('one'), (stage) => stages.push(stage));
  assert.strictEqual(stages.length, 5);
  tarvek.create(root, ['docs', 'b'], bytes('two'));
  throwsCode('OPTIMISTIC_CONFLICT', () => tarvek.create(root, ['docs', 'b'], bytes('three')));
  tarvek.append(root, ['docs', 'a'], 3, 3, bytes('+1'));
  throwsCode('OPTIMISTIC_CONFLICT', () => tarvek.append(root, ['docs', 'a'], 9, 0, bytes('+1')));
  assert.deepStrictEqual(tarvek.read(root, ['docs', 'a']), bytes('one+1'));
  tarvek.ensureDirectory(root, ['empty']);
  assert.strictEqual(tarvek.ensureRelativeSymlink(root, ['link'], ['docs']), true);
  throwsCode('PATH_OUT_OF_ROOT', () => tarvek.read(root, ['link', 'a']));
  tarvek.move(root, ['docs', 'b'], ['moved', 'c']);
  tarvek.exchangeForTest(root, 'moved', 'empty');
  assert.deepStrictEqual(tarvek.list(root, ['empty']), ['c']);
}

function publish(tarvek, root, base) {
  const fd = fs.openSync(path.join(base, 'empty', 'c'), O_RDONLY | O_NOFOLLOW);
  try {
    tarvek.publishVerified(root, fd, ['empty', 'c'], ['out', 'final'], bytes('two'));
  } finally {
    fs.closeSync(fd);
  }
  throwsCode('NOT_FOUND', () => tarvek.read(root, ['empty', 'c']));
}

function readTrees(tarvek, root) {
  const records = tarvek.capture(root, [['docs'], ['out', 'final']]);
  const found = records.map(({ type, mode, body }) => [type, mode.toString(8), String(body)]);
  assert.deepStrictEqual(found, [
    ['directory', '700', 'undefined'],
    ['file', '600', 'one+1'],
    ['file', '600', 'two'],
  ]);
  const files = tarvek.snapshot(root, ['docs']);
  assert.strictEqual(Object.getPrototypeOf(files), null);
  assert.deepStrictEqual(Object.entries(files), [['a', bytes('one+1')]]);
}

function hookAndRemove(tarvek, root) {
  const points = [];
  tarvek.setTestHook(({ point, segment, index }) => points.push(`${point} ${segment} ${index}`));
  tarvek.removeIfEquals(root, ['out', 'final'], bytes('two'));
  tarvek.setTestHook();
  assert.deepStrictEqual(points, [
    'ancestor-open out 0',
    'pre-effect final 1',
    'remove-if-equals-open final 1',
    'remove-if-equals-unlink final 1',
  ]);
  const thrown = new TypeError('from the hook');
  tarvek.setTestHook(() => {
    throw thrown;
  });
  assert.throws(
    () => tarvek.remove(root, ['docs']),
    (error) => error === thrown,
  );
  tarvek.setTestHook(null);
  tarvek.remove(root, ['docs']);
  assert.strictEqual(tarvek.exists(root, ['docs']), false);
}

module.exports = function exercise(tarvek) {
  assert.strictEqual(Object.getOwnPropertyNames(tarvek).length, 21);
  const base = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-exercise-')));
  try {
    const above = tarvek.open(path.dirname(base));
    const root = tarvek.openRelative(above, [path.basename(base)]);
    tarvek.close(above);
    const { dev, ino } = fs.statSync(base, { bigint: true });
    assert.deepStrictEqual(tarvek.rootIdentity(root), { dev, ino });
    changeFiles(tarvek, root);
    publish(tarvek, root, base);
    readTrees(tarvek, root);
    hookAndRemove(tarvek, root);
    tarvek.close(root);
    throwsCode('HANDLE_CLOSED', () => tarvek.exists(root, ['docs']));
    throwsCode('NOT_FOUND', () => tarvek.openRoot(path.join(base, 'docs')));
  } finally {
    fs.rmSync(base, { recursive: true });
  }
};
