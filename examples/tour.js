'use strict';

// A tour of what tarvek does, on real files: node examples/tour.js [DIR]
//
// Captures DIR (by default the package's own files) and holds every record against node:fs; changes
// files in a scratch directory, which it removes again; and plays the classic attack, once against
// plain node:fs and once against tarvek. DIR itself is only read. The exit status is 0 if every step
// went as it should.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const tarvek = require('..');

const colours = Boolean(process.stdout.isTTY && process.stdout.hasColors());
const paint = (code) => (text) => (colours ? `\x1b[${code}m${text}\x1b[0m` : text);
const [bold, dim, red, green] = [1, 2, 31, 32].map(paint);

const LINE_WIDTH = 84;
const REFUSALS_SHOWN = 12;
const outcomes = { passed: 0, failed: 0 };

const say = (text) => console.log(`    ${text}`);
const milliseconds = (since) => `${(performance.now() - since).toFixed(2)} ms`;
const size = (bytes) =>
  bytes < 2 ** 20 ? `${(bytes / 2 ** 10).toFixed(1)} KiB` : `${(bytes / 2 ** 20).toFixed(1)} MiB`;

function report(mark, text, duration) {
  console.log(`  ${mark} ${text.padEnd(LINE_WIDTH - 16)}${dim(duration.padStart(12))}`);
}

// One thing that should be so. `body` throws when it is not, and may return a remark.
function check(text, body) {
  const start = performance.now();
  try {
    const remark = body();
    report(green('✓'), text, milliseconds(start));
    if (remark) say(remark);
    outcomes.passed += 1;
  } catch (error) {
    report(red('✗'), text, milliseconds(start));
    say(red(error.stack));
    outcomes.failed += 1;
  }
}

const refused = (code, call) => assert.throws(call, { code }, `should fail with ${code}`);

// --- Capturing a directory ----------------------------------------------------------------------

const GENERATED = new Set(['build', 'node_modules', 'prebuilds']);
const PACKAGE = path.join(__dirname, '..');

// What of a package is not written by hand is left out of the default; a DIR is taken whole.
function entriesOf(directory, isDefault) {
  const names = fs.readdirSync(directory).sort();
  return isDefault ? names.filter((name) => !GENERATED.has(name) && name[0] !== '.') : names;
}

// `npm run` starts scripts in the package's folder, and tells where it was started itself.
function givenDirectory(argument) {
  if (argument === undefined) return PACKAGE;
  const fromNpm = process.env.npm_lifecycle_event === 'tour' ? process.env.INIT_CWD : undefined;
  return path.resolve(fromNpm ?? process.cwd(), argument);
}

const CANNOT_START = {
  ENOENT: 'there is no such directory',
  ENOTDIR: 'it is no directory',
  EACCES: 'it may not be reached',
  NOT_FOUND: 'it vanished meanwhile',
  PATH_OUT_OF_ROOT: 'a root is a directory other than "/", with no backslash in its path',
  FILESYSTEM_FAILURE: 'a directory of its path may not be read',
};

// Undefined, after it has said why, when there is nothing to start from.
function openGiven(given) {
  try {
    const directory = fs.realpathSync(given);
    return { directory, root: tarvek.openRoot(directory) };
  } catch (error) {
    console.error(red(`The tour cannot start at ${given}: ${CANNOT_START[error.code] ?? error}`));
    return undefined;
  }
}

// Everything at and beneath a path in capture's order, as node:fs sees it: a directory before what
// is in it, names by their bytes. Paths are Buffers, since names need not be UTF-8.
function* walk(top) {
  const left = [Buffer.from(top)];
  while (left.length > 0) {
    const at = left.pop();
    const stat = fs.lstatSync(at);
    yield { at, stat };
    if (!stat.isDirectory()) continue;
    const names = fs.readdirSync(at, { encoding: 'buffer' }).sort(Buffer.compare);
    for (const name of names.reverse()) left.push(Buffer.concat([at, Buffer.from('/'), name]));
  }
}

const relativeTo = (directory, at) => at.toString().slice(directory.length + 1);

function compareWithNodeFs(directory, name, records) {
  let bytes = 0;
  let index = 0;
  for (const { at, stat } of walk(path.join(directory, name))) {
    const record = records[index++];
    assert.equal(record?.path, relativeTo(directory, at), 'the same entries in the same order');
    assert.equal(record.type, stat.isDirectory() ? 'directory' : 'file', record.path);
    assert.equal(record.mode, stat.mode & 0o777, `mode of ${record.path}`);
    if (record.type === 'directory') continue;
    assert.ok(record.body.equals(fs.readFileSync(at)), `bytes of ${record.path}`);
    bytes += record.body.length;
  }
  assert.equal(records.length, index, 'a record for every entry and no more');
  return bytes;
}

// What capture has to refuse, with its words for it.
const OBSTACLES = [
  ['symbolic link in snapshot source', 'is a symbolic link', (stat) => stat.isSymbolicLink()],
  [
    'hard-linked snapshot source is forbidden',
    'is a file with more than one name',
    (stat) => stat.isFile() && stat.nlink !== 1,
  ],
  [
    'non-regular snapshot source',
    'is neither a file nor a directory',
    (stat) => !stat.isFile() && !stat.isDirectory(),
  ],
];

// Why capture refused an entry, in the eyes of node:fs. Undefined: there it finds no reason.
function reasonFor(error, directory, name) {
  if (name.includes('\\')) return `${name} has a backslash, and cannot be asked for`;
  if (error.code === 'NOT_FOUND') return `something in ${name} vanished meanwhile`;
  if (/identity|changed/.test(error.message)) return `something in ${name} changed meanwhile`;
  try {
    for (const { at, stat } of walk(path.join(directory, name))) {
      const [message, what] = OBSTACLES.find(([, , applies]) => applies(stat)) ?? [];
      if (message) return message === error.message && `${relativeTo(directory, at)} ${what}`;
      fs.accessSync(at, fs.constants.R_OK);
    }
  } catch (cause) {
    return `${relativeTo(directory, String(cause.path))} cannot be read (${cause.code})`;
  }
  return undefined;
}

function captureEntry(root, directory, name, totals) {
  const start = performance.now();
  let records;
  try {
    records = tarvek.capture(root, [[name]]);
  } catch (error) {
    const reason = reasonFor(error, directory, name);
    assert.ok(reason, `${name}: ${error.code}, ${error.message}; node:fs does not explain it`);
    totals.refused.push(reason);
    return;
  } finally {
    totals.milliseconds += performance.now() - start;
  }
  totals.bytes += compareWithNodeFs(directory, name, records);
  totals.files += records.filter(({ type }) => type === 'file').length;
  totals.directories += records.filter(({ type }) => type === 'directory').length;
}

function captureDirectory({ directory, root }, isDefault) {
  const totals = { files: 0, directories: 0, bytes: 0, milliseconds: 0, refused: [] };
  check('capture and node:fs agree on every record, and on every refusal', () => {
    for (const name of entriesOf(directory, isDefault)) captureEntry(root, directory, name, totals);
    const { files, directories, bytes, milliseconds: time } = totals;
    return `files: ${files}, directories: ${directories}, ${size(bytes)}, in ${time.toFixed(2)} ms`;
  });
  if (totals.refused.length === 0) return;
  say(`entries refused: ${totals.refused.length}`);
  for (const line of totals.refused.slice(0, REFUSALS_SHOWN)) say(`  ${line}`);
  if (totals.refused.length > REFUSALS_SHOWN) say('  ...');
  say(dim('capture gives a whole and faithful copy or none: it follows no link, since that may'));
  say(dim('lead anywhere, and takes no file that can be changed under another name.'));
}

// --- Changing files -----------------------------------------------------------------------------

const REPORT = ['reports', 'today.json'];
const OLD = Buffer.from('{"sold":41}');
const NEW = Buffer.from('{"sold":42}');

function replaceWhileWatching(root, scratch) {
  const seen = [];
  const start = performance.now();
  tarvek.write(root, REPORT, NEW, (stage) => {
    const at = milliseconds(start);
    const reader = fs.readFileSync(path.join(scratch, ...REPORT), 'utf8');
    const temporary = fs.readdirSync(path.join(scratch, REPORT[0])).length - 1;
    seen.push(reader);
    const moment = `${stage.padEnd(22)}${at.padStart(9)}`;
    say(`${moment}   a reader sees ${reader}; temporary files: ${temporary}`);
  });
  assert.deepEqual(seen, [OLD, OLD, OLD, NEW, NEW].map(String));
}

function changeFiles({ root, scratch }) {
  check('write makes a file and its directory, flushed to the disk', () => {
    tarvek.write(root, REPORT, OLD);
  });
  check('read gives the same bytes', () => assert.deepEqual(tarvek.read(root, REPORT), OLD));
  check('replaced in one step: a reader sees all of the old or all of the new', () => {
    replaceWhileWatching(root, scratch);
  });
  check('create makes what is not there, and replaces nothing', () => {
    tarvek.create(root, ['lock'], Buffer.from('held by me'));
    refused('OPTIMISTIC_CONFLICT', () => tarvek.create(root, ['lock'], NEW));
  });
  check('removeIfEquals leaves a file that is not what was expected', () => {
    refused('OPTIMISTIC_CONFLICT', () =>
      tarvek.removeIfEquals(root, ['lock'], Buffer.from('held by you')),
    );
    assert.equal(tarvek.exists(root, ['lock']), true);
  });
  check('removeIfEquals removes the one that is', () => {
    tarvek.removeIfEquals(root, ['lock'], Buffer.from('held by me'));
    assert.equal(tarvek.exists(root, ['lock']), false);
  });
}

// --- Publishing ---------------------------------------------------------------------------------

const DRAFT = ['drafts', 'notes.txt'];
const FINAL = ['released', 'notes.txt'];

function publishFiles({ root, scratch }) {
  const text = Buffer.from('What is new: everything.\n');
  tarvek.create(root, DRAFT, text);
  const fd = fs.openSync(path.join(scratch, ...DRAFT), fs.constants.O_RDONLY);
  const publish = () => tarvek.publishVerified(root, fd, DRAFT, FINAL, text);

  check('publishVerified refuses a draft that changed after it was verified', () => {
    fs.appendFileSync(path.join(scratch, ...DRAFT), 'And a bug.\n');
    refused('CANDIDATE_CHANGED', publish);
    assert.equal(tarvek.exists(root, FINAL), false);
  });
  check('publishVerified gives an unchanged one its final name', () => {
    fs.truncateSync(path.join(scratch, ...DRAFT), text.length);
    publish();
    assert.equal(tarvek.exists(root, DRAFT), false);
  });
  fs.closeSync(fd);
  check('snapshot reads a whole directory by path', () => {
    const files = tarvek.snapshot(root, ['released']);
    assert.deepEqual(Object.entries(files), [['notes.txt', text]]);
  });
}

// --- The attack ---------------------------------------------------------------------------------

const NOTE = ['docs', 'note.txt'];
const INSIDE = 'inside the root';
const OUTSIDE = 'a secret from outside';

// Careful code on plain node:fs: resolve the path, check that it lies inside, use it. Between the
// last two there always is a moment.
function readPlain(scratch, segments, inThatMoment) {
  const file = fs.realpathSync(path.join(scratch, ...segments));
  if (!file.startsWith(`${scratch}${path.sep}`)) throw new Error('refused: outside the root');
  inThatMoment();
  return fs.readFileSync(file, 'utf8');
}

// `docs` becomes a symbolic link to a directory outside that holds files of the same names.
function swap({ scratch, outside }) {
  fs.renameSync(path.join(scratch, 'docs'), path.join(scratch, 'docs-moved-away'));
  fs.symlinkSync(outside, path.join(scratch, 'docs'));
}

function undoSwap({ scratch }) {
  fs.unlinkSync(path.join(scratch, 'docs'));
  fs.renameSync(path.join(scratch, 'docs-moved-away'), path.join(scratch, 'docs'));
}

function duringSwap(place, body) {
  swap(place);
  try {
    body();
  } finally {
    undoSwap(place);
  }
}

// Runs a call with the swap at one moment of it: a point of the test hook, or a stage.
function attack(place, moment, call) {
  let swapped = false;
  const act = (now) => {
    if (now !== moment) return;
    swap(place);
    swapped = true;
  };
  tarvek.setTestHook(({ point }) => act(point));
  try {
    refused('PATH_OUT_OF_ROOT', () => call(act));
  } finally {
    tarvek.setTestHook();
    if (swapped) undoSwap(place);
  }
  assert.ok(swapped, `there was no moment ${moment}`);
}

function attackPlain(place) {
  const { scratch } = place;
  check('plain node:fs refuses a link that is there before the check', () => {
    duringSwap(place, () => {
      assert.throws(() => readPlain(scratch, NOTE, () => {}), { message: /outside the root/ });
    });
  });
  check('plain node:fs leaks, docs swapped just after its check', () => {
    const read = readPlain(scratch, NOTE, () => swap(place));
    undoSwap(place);
    assert.equal(read, OUTSIDE);
    return `it read "${read}"`;
  });
}

function attackTarvek(place) {
  const { root, outside } = place;
  for (const moment of ['ancestor-open', 'pre-effect']) {
    check(`tarvek.read refuses, docs swapped at "${moment}"`, () => {
      attack(place, moment, () => tarvek.read(root, NOTE));
    });
  }
  const stages = ['after-temp-write', 'after-file-sync', 'before-file-rename'];
  for (const moment of ['ancestor-open', 'pre-effect', ...stages]) {
    check(`tarvek.write refuses, docs swapped at "${moment}"`, () => {
      attack(place, moment, (stage) => tarvek.write(root, NOTE, NEW, stage));
    });
  }
  check('nothing changed, inside or outside', () => {
    assert.equal(String(tarvek.read(root, NOTE)), INSIDE);
    assert.deepEqual(tarvek.list(root, ['docs']), ['note.txt']);
    assert.deepEqual(fs.readdirSync(outside), ['note.txt']);
    assert.equal(fs.readFileSync(path.join(outside, 'note.txt'), 'utf8'), OUTSIDE);
  });
}

function playAttack(place) {
  tarvek.create(place.root, NOTE, Buffer.from(INSIDE));
  fs.mkdirSync(place.outside);
  fs.writeFileSync(path.join(place.outside, 'note.txt'), OUTSIDE);
  attackPlain(place);
  attackTarvek(place);
}

// --- The tour -----------------------------------------------------------------------------------

function makeScratch() {
  const base = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-tour-')));
  const place = { base, scratch: path.join(base, 'root'), outside: path.join(base, 'outside') };
  fs.mkdirSync(place.scratch);
  return { ...place, root: tarvek.openRoot(place.scratch) };
}

const STEPS = [
  ['Change files, in a scratch directory', changeFiles],
  ['Publish a verified file', publishFiles],
  ['The attack: a directory is swapped for a symbolic link at the exact moment', playAttack],
];

async function workInScratch() {
  const place = makeScratch();
  // At exit rather than here, so that it goes in every case but a kill.
  process.once('exit', () => fs.rmSync(place.base, { recursive: true, force: true }));
  // Heard between steps only: a step runs without a pause, but for a few milliseconds.
  const interrupted = (_signal, number) => process.exit(128 + number);
  process.on('SIGINT', interrupted).on('SIGTERM', interrupted);
  for (const [title, step] of STEPS) {
    console.log(`\n${bold(title)}`);
    step(place);
    await new Promise(setImmediate);
  }
  tarvek.close(place.root);
}

async function tour(argument) {
  const start = performance.now();
  const given = givenDirectory(argument);
  const opened = openGiven(given);
  if (!opened) return false;
  console.log(bold(`Capture ${opened.directory}`));
  if (opened.directory !== given) {
    say(`${given} leads there through a symbolic link. openRoot follows none; the tour did.`);
  }
  captureDirectory(opened, argument === undefined);
  tarvek.close(opened.root);
  await workInScratch();

  const { passed, failed } = outcomes;
  console.log(
    failed === 0
      ? green(`\nAll ${passed} steps went as they should.`)
      : red(`\n${failed} of ${passed + failed} steps went wrong.`),
  );
  console.log(dim(`Node.js ${process.versions.node}, ${milliseconds(start)} in all`));
  return failed === 0;
}

// The reader may have seen enough, as `head` does.
process.stdout.on('error', () => process.exit(1));

tour(process.argv[2]).then((went) => {
  process.exitCode = went ? 0 : 1;
});
