'use strict';

// A directory saved to one file and restored from it, while other processes may change the directory.
//
//   node backup.js save DIRECTORY ARCHIVE
//   node backup.js restore ARCHIVE DIRECTORY
//
// The archive is a sequence of records: the length of a header in four bytes, the header as JSON, and
// the content. The header of an entry is { path, type, mode, size }. The last header, { count, sha256 },
// counts the entries and hashes all bytes before it. So `restore` finds out that an archive is damaged
// or incomplete before it writes. It replaces nothing: a file that exists makes it fail.
//
// `save` holds one entry of DIRECTORY in memory at a time, with everything below it. An entry is
// consistent in itself, but entries are read one after the other. The mode of DIRECTORY is not saved. A
// symlink or a file with a second hard link makes it fail; `npx tarvek check DIRECTORY` finds them.

const { createHash } = require('node:crypto');
const fs = require('node:fs');
const { open } = require('node:fs/promises');
const os = require('node:os');
const path = require('node:path');
const { setTimeout: pause } = require('node:timers/promises');
const tarvek = require('tarvek/promises');

// What `restore` holds in memory: this many entries, or this many bytes and one entry more.
const BATCH_ENTRIES = 64;
const BATCH_BYTES = 16 * 2 ** 20;

// What a call can fail with if another process changes the directory. Such a call can be repeated, after
// a pause, because an entry can be in the way for some milliseconds. The last three are those of node:fs.
const RACES = ['PATH_OUT_OF_ROOT', 'NOT_FOUND', 'ENOENT', 'ENOTDIR', 'ELOOP'];

async function retry(call) {
  for (let attempt = 1; ; ++attempt) {
    try {
      return await call();
    } catch (error) {
      if (!RACES.includes(error.code) || attempt === 10) throw error;
    }
    await pause(attempt);
  }
}

// Shows no names. Other processes choose them, and they can contain the codes that control a terminal.
function showProgress(share, text) {
  if (!process.stderr.isTTY) return;
  const bar = '#'.repeat(Math.round(share * 40)).padEnd(40, '.');
  process.stderr.write(`\r[${bar}] ${text}\x1b[K${share === 1 ? '\n' : ''}`);
}

// --- The archive --------------------------------------------------------------------------------

async function writeArchive(archive, records) {
  const hash = createHash('sha256');
  let count = 0;
  const put = async (header, body) => {
    const text = Buffer.from(JSON.stringify(header));
    const length = Buffer.alloc(4);
    length.writeUInt32BE(text.length);
    for (const bytes of [length, text, body]) {
      hash.update(bytes);
      await archive.appendFile(bytes);
    }
  };
  for await (const { path: name, type, mode, body = Buffer.alloc(0) } of records) {
    await put({ path: name, type, mode, size: body.length }, body);
    ++count;
  }
  await put({ count, sha256: hash.copy().digest('hex') }, Buffer.alloc(0));
  await archive.sync();
}

const damaged = () => new Error('the archive is damaged or incomplete');
const replaced = () =>
  Object.assign(new Error('a directory was replaced'), { code: 'PATH_OUT_OF_ROOT' });

// The header can be forged. A mode must not contain more than permissions.
function parseHeader(text) {
  try {
    const header = JSON.parse(text);
    const { path: name, type, mode, size, sha256 } = header;
    const isEntry = typeof name === 'string' && ['file', 'directory'].includes(type);
    if (sha256 || (isEntry && mode === (mode & 0o777) && Number.isSafeInteger(size))) return header;
  } catch {}
  throw damaged();
}

// Throws after the last record if the archive is not whole.
async function* readArchive(archive) {
  const { size: end } = await archive.stat();
  const hash = createHash('sha256');
  let position = 0;

  async function take(length) {
    // A wrong length must not take the memory.
    if (length < 0 || length > end - position) throw damaged();
    const bytes = Buffer.alloc(length);
    for (let count = 0; count < length; ) {
      const { bytesRead } = await archive.read(bytes, count, length - count, position);
      if (bytesRead === 0) throw damaged();
      count += bytesRead;
      position += bytesRead;
    }
    return bytes;
  }

  for (let count = 0; ; ++count) {
    const length = await take(4);
    const text = await take(length.readUInt32BE());
    const header = parseHeader(text);
    if (header.sha256) {
      const isWhole = header.count === count && header.sha256 === hash.digest('hex');
      if (isWhole && position === end) return;
      throw damaged();
    }
    const body = await take(header.size);
    for (const bytes of [length, text, body]) hash.update(bytes);
    yield { ...header, body };
  }
}

// --- Saving -------------------------------------------------------------------------------------

async function* recordsOf(root, names) {
  for (const [index, name] of names.entries()) {
    const show = ({ files }) =>
      showProgress(
        index / names.length,
        `${index} of ${names.length} entries, ${files} files of the next`,
      );
    yield* await retry(() => tarvek.capture(root, [[name]], { onProgress: show }));
  }
  showProgress(1, `${names.length} entries`);
}

// The root of a directory and the names in it.
async function openTree(directory) {
  const { dir, base } = path.parse(fs.realpathSync(directory));
  // No array of names addresses the root itself, so its parent directory lists it.
  const parent = await tarvek.openRoot(dir);
  try {
    const names = await retry(() => tarvek.list(parent, [base]));
    return { root: await tarvek.openRelative(parent, [base]), names };
  } finally {
    await tarvek.close(parent);
  }
}

async function save(directory, file) {
  const { root, names } = await openTree(directory);
  try {
    const archive = await open(file, 'wx', 0o600);
    try {
      await writeArchive(archive, recordsOf(root, names));
    } catch (error) {
      fs.unlinkSync(file);
      throw error;
    } finally {
      await archive.close();
    }
    // The name of the archive.
    const parent = await open(path.dirname(file));
    await parent.sync().finally(() => parent.close());
  } finally {
    await tarvek.close(root);
  }
}

// --- Restoring ----------------------------------------------------------------------------------

async function* inBatches(records) {
  let batch = [];
  let size = 0;
  for await (const record of records) {
    batch.push(record);
    size += record.body.length;
    if (batch.length < BATCH_ENTRIES && size < BATCH_BYTES) continue;
    yield batch;
    batch = [];
    size = 0;
  }
  if (batch.length > 0) yield batch;
}

async function restoreFile(root, { segments, mode, body }) {
  await retry(() => tarvek.create(root, segments, body));
  const file = await retry(() => tarvek.openFile(root, segments));
  try {
    await file.chmod(mode);
    await file.sync();
  } finally {
    await file.close();
  }
}

// tarvek opens no directory for node:fs. So node:fs opens one by its path, which can lead anywhere, and
// its descriptor is used only if it is the directory that tarvek reaches. While that one is open, no other
// directory has its identity.
async function setMode(directory, reached, mode) {
  const { O_DIRECTORY, O_NOFOLLOW } = fs.constants;
  const opened = await open(directory, O_DIRECTORY | O_NOFOLLOW);
  try {
    const { dev, ino } = await tarvek.rootIdentity(reached);
    const found = await opened.stat({ bigint: true });
    if (found.dev !== dev || found.ino !== ino) throw replaced();
    await opened.chmod(mode);
    await opened.sync();
  } finally {
    await opened.close();
  }
}

async function restoreMode(root, directory, { segments, mode }) {
  const reached = await tarvek.openRelative(root, segments);
  const setReached = () => setMode(path.join(directory, ...segments), reached, mode);
  await retry(setReached).finally(() => tarvek.close(reached));
}

async function restoreAll(archive, directory, root, total) {
  const directories = [];
  let done = 0;
  for await (const batch of inBatches(readArchive(archive))) {
    const entries = batch.map((record) => ({ ...record, segments: record.path.split('/') }));
    // A directory comes before its contents.
    for (const entry of entries.filter(({ type }) => type === 'directory')) {
      await retry(() => tarvek.ensureDirectory(root, entry.segments));
      directories.push(entry);
    }
    const files = entries.filter(({ type }) => type === 'file');
    await Promise.all(files.map((file) => restoreFile(root, file)));
    done += batch.length;
    showProgress(done / total, `${done} of ${total} entries`);
  }
  // The deepest first, and after all files: a mode can forbid to create anything below.
  for (const entry of directories.reverse()) await retry(() => restoreMode(root, directory, entry));
}

async function restore(file, directory) {
  const archive = await open(file);
  try {
    const verified = readArchive(archive);
    let total = 0;
    while (!(await verified.next()).done) ++total;
    fs.mkdirSync(directory, { recursive: true });
    const real = fs.realpathSync(directory);
    const root = await tarvek.openRoot(real);
    await restoreAll(archive, real, root, total).finally(() => tarvek.close(root));
  } finally {
    await archive.close();
  }
}

module.exports = { save, restore };

// --- A demonstration ----------------------------------------------------------------------------

// Each path with its mode and content.
function describe(directory) {
  const names = fs.readdirSync(directory, { recursive: true }).sort();
  return names.map((name) => {
    const at = path.join(directory, name);
    const stat = fs.statSync(at);
    const content = stat.isFile() ? fs.readFileSync(at, 'latin1') : '';
    return `${name} ${(stat.mode & 0o777).toString(8)} ${content}`;
  });
}

async function demonstrate(directory) {
  const [tree, file, copy] = ['tree', 'archive', 'copy'].map((name) => path.join(directory, name));
  fs.mkdirSync(path.join(tree, 'notes', 'old'), { recursive: true });
  for (let number = 0; number < 300; ++number) {
    fs.writeFileSync(path.join(tree, 'notes', 'old', `${number}.txt`), `note ${number}`);
  }
  fs.writeFileSync(path.join(tree, 'run.sh'), 'echo\n', { mode: 0o755 });
  fs.chmodSync(path.join(tree, 'notes', 'old'), 0o555);
  await save(tree, file);
  await restore(file, copy);
  const [before, after] = [describe(tree), describe(copy)];
  console.log(`saved: ${before.length} entries, restored: ${after.length}`);
  console.log(`the same contents and modes: ${before.join() === after.join()}`);
  await restore(file, copy).catch(({ code }) => console.log(`again: ${code}`));
  fs.truncateSync(file, fs.statSync(file).size - 1);
  await restore(file, copy).catch(({ message }) => console.log(`cut off: ${message}`));
  for (const at of [tree, copy]) fs.chmodSync(path.join(at, 'notes', 'old'), 0o755);
}

async function main([command, from, to]) {
  if (command === 'save' && to) return await save(from, to);
  if (command === 'restore' && to) return await restore(from, to);
  if (command)
    throw new Error('usage: backup.js save DIRECTORY ARCHIVE | restore ARCHIVE DIRECTORY');
  const directory = fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-backup-'));
  return await demonstrate(directory).finally(() => fs.rmSync(directory, { recursive: true }));
}

if (require.main === module) {
  main(process.argv.slice(2)).catch(({ message }) => {
    console.error(`backup: ${message}`);
    process.exitCode = 1;
  });
}
