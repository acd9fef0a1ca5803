'use strict';

// Calls every function of tarvek/promises once, in the main thread and in a worker of the program.

const assert = require('node:assert');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { Worker, isMainThread } = require('node:worker_threads');
const tarvek = require('tarvek/promises');

const bytes = (text) => Buffer.from(text);
const large = Buffer.alloc(100_000, 'l');

async function changeFiles(root, base) {
  await tarvek.write(root, ['docs', 'a'], large);
  await tarvek.create(root, ['docs', 'b'], bytes('two'));
  await assert.rejects(tarvek.create(root, ['docs', 'b'], large), { code: 'OPTIMISTIC_CONFLICT' });
  await tarvek.append(root, ['docs', 'a'], large.length, 0, bytes('+1'));
  await tarvek.ensureDirectory(root, ['empty']);
  assert.strictEqual(await tarvek.ensureRelativeSymlink(root, ['link'], ['docs']), true);
  await tarvek.move(root, ['docs', 'b'], ['moved', 'c']);
  const candidate = ['moved', 'c'];
  const fd = fs.openSync(path.join(base, ...candidate));
  await tarvek.publishVerified(root, fd, candidate, ['docs', 'd'], bytes('two'));
  fs.closeSync(fd);
  await tarvek.removeIfEquals(root, ['docs', 'd'], bytes('two'));
  await tarvek.remove(root, ['moved']);
}

async function readFiles(root) {
  const content = Buffer.concat([large, bytes('+1')]);
  assert.deepStrictEqual(await tarvek.read(root, ['docs', 'a']), content);
  const file = await tarvek.openFile(root, ['docs', 'a']);
  assert.deepStrictEqual(await file.readFile(), content);
  await file.close();
  assert.deepStrictEqual(await tarvek.list(root, ['docs']), ['a']);
  const [directory, record] = await tarvek.capture(root, [['docs']]);
  assert.deepStrictEqual([directory.type, record.path], ['directory', 'docs/a']);
  assert.deepStrictEqual(record.body, content);
  const files = await tarvek.snapshot(root, ['docs']);
  assert.deepStrictEqual(Object.entries(files), [['a', content]]);
}

async function exercise() {
  assert.strictEqual(Object.keys(tarvek).length, 23);
  const base = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-promises-')));
  const above = await tarvek.open(path.dirname(base));
  const root = await tarvek.openRelative(above, [path.basename(base)]);
  await tarvek.close(above);
  const { dev, ino } = fs.statSync(base, { bigint: true });
  assert.deepStrictEqual(await tarvek.rootIdentity(root), { dev, ino });
  await changeFiles(root, base);
  await readFiles(root);
  await tarvek.close(root);
  await assert.rejects(tarvek.exists(root, ['docs']), { code: 'HANDLE_CLOSED' });
  await assert.rejects(tarvek.openRoot(path.join(base, 'none')), { code: 'NOT_FOUND' });
  fs.rmSync(base, { recursive: true });
  console.log('done');
}

if (isMainThread) {
  new Worker(__filename).on('exit', (code) => {
    process.exitCode ||= code;
  });
}
exercise();
