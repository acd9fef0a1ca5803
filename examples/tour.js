'use strict';

// A tour of what tarvek does, on real files: node examples/tour.js [DIR]
//
// 1. Captures DIR (by default the files of this package) and compares every record with node:fs.
//    What capture refuses, tarvek/check explains. DIR is only read.
// 2. Changes and publishes files in a scratch directory, which it removes at the end.
// 3. Plays the classic attack on a path, against plain node:fs and against tarvek.
//
// The exit status is 0 if every step went as it should.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const tarvek = require('..');
const { check: obstaclesIn, format } = require('tarvek/check');

const colours = Boolean(process.stdout.isTTY && process.stdout.hasColors());
const paint = (code) => (text) => (colours ? `\x1b[${code}m${text}\x1b[0m` : text);
const [bold, dim, red, green, yellow] = [1, 2, 31, 32, 33].map(paint);

const TEXT_WIDTH = 76;
const OBSTACLES_SHOWN = 12;
const outcomes = { passed: 0, failed: 0 };

const say = (text) => console.log(`    ${text}`);
const milliseconds = (since) => `${(performance.now() - since).toFixed(2)} ms`;
const size = (bytes) =>
  bytes < 2 ** 20 ? `${(bytes / 2 ** 10).toFixed(1)} KiB` : `${(bytes / 2 ** 20).toFixed(1)} MiB`;

function report(mark, text, duration) {
  console.log(`  ${mark} ${text.padEnd(TEXT_WIDTH)}${dim(duration.padStart(10))}`);
}

// Runs one step. `body` throws if something is not as it should be, and may return a remark.
function check(text, body, mark = green('✓')) {
  const start = performance.now();
  try {
    const remark = body();
    report(mark, text, milliseconds(start));
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

const PACKAGE = path.join(__dirname, '..');
const GENERATED = new Set(['build', 'node_modules', 'prebuilds']);
const isLeftOut = (name) => GENERATED.has(name) || name.startsWith('.');

// `npm run` starts scripts in the directory of the package, and tells where it was started itself.
function givenDirectory(argument) {
  if (argument === undefined) return PACKAGE;
  const fromNpm = process.env.npm_lifecycle_event === 'tour' ? process.env.INIT_CWD : undefined;
  return path.resolve(fromNpm ?? process.cwd(), argument);
}

// Undefined, after it has said why, if the directory cannot be opened.
function openGiven(given) {
  try {
    const directory = fs.realpathSync(given);
    return { directory, root: tarvek.openRoot(directory) };
  } catch (error) {
    const why = error.code === 'ENOENT' ? 'there is no such directory' : error.code;
    console.error(red(`The tour cannot start at ${given}: ${why}`));
    if (error.code !== 'ENOENT') {
      console.error(`To see more: npx tarvek check "${given}"`);
    }
    return undefined;
  }
}

// As node:fs sees it, in the order of capture: a directory before its entries, names by their bytes.
function* entriesAt(at) {
  const stat = fs.lstatSync(at);
  yield { at, stat };
  if (!stat.isDirectory()) return;
  const names = fs.readdirSync(at, { encoding: 'buffer' }).sort(Buffer.compare);
  for (const name of names) yield* entriesAt(Buffer.concat([at, Buffer.from('/'), name]));
}

function compareWithNodeFs(directory, name, records) {
  let bytes = 0;
  let index = 0;
  for (const { at, stat } of entriesAt(Buffer.from(path.join(directory, name)))) {
    const record = records[index++];
    const relative = at.toString().slice(directory.length + 1);
    assert.equal(record?.path, relative, 'the same entries in the same order');
    assert.equal(record.type, stat.isDirectory() ? 'directory' : 'file', relative);
    assert.equal(record.mode, stat.mode & 0o777, `mode of ${relative}`);
    if (record.type === 'directory') continue;
    assert.ok(record.body.equals(fs.readFileSync(at)), `bytes of ${relative}`);
    bytes += record.body.length;
  }
  assert.equal(records.length, index, 'a record for every entry and no more');
  return bytes;
}

// Captures each entry by itself, so that one refusal does not hide the others.
function captureEntry({ directory, root }, name, totals) {
  const start = performance.now();
  let records;
  try {
    records = tarvek.capture(root, [[name]]);
  } catch (error) {
    totals.refused.push({ name, error });
    return;
  } finally {
    totals.milliseconds += performance.now() - start;
  }
  totals.bytes += compareWithNodeFs(directory, name, records);
  totals.files += records.filter(({ type }) => type === 'file').length;
  totals.directories += records.filter(({ type }) => type === 'directory').length;
}

// A line for each obstacle in the entries that were refused.
function explain(directory, refusals) {
  const obstacles = refusals.length > 0 ? Array.from(obstaclesIn(directory)) : [];
  return refusals.flatMap(({ name, error: { code, message } }) => {
    const inEntry = obstacles.filter(({ path: at }) => `${at}/`.startsWith(`${name}/`));
    const isRace = code === 'NOT_FOUND' || /changed|identity/.test(message);
    assert.ok(inEntry.length > 0 || isRace, `${name}: ${message}; check does not explain it`);
    return inEntry.length > 0
      ? inEntry.map(format)
      : [format({ path: name, why: 'changed meanwhile', code })];
  });
}

function captureDirectory(opened, isDefault) {
  const totals = { files: 0, directories: 0, bytes: 0, milliseconds: 0, refused: [] };
  let reasons = [];
  if (isDefault) say(dim('Left out: names that begin with a dot, and what is built or installed.'));
  check('capture and node:fs agree on every record, and tarvek/check on every refusal', () => {
    for (const name of fs.readdirSync(opened.directory).sort()) {
      if (!isDefault || !isLeftOut(name)) captureEntry(opened, name, totals);
    }
    reasons = explain(opened.directory, totals.refused);
    const { files, directories, bytes, milliseconds: time } = totals;
    const what = `files: ${files}, directories: ${directories}, ${size(bytes)}`;
    return `captured ${what}, in ${time.toFixed(2)} ms; the rest of the time is the comparison`;
  });
  if (reasons.length === 0) return;
  say(`Entries refused: ${totals.refused.length}. An entry is captured whole or not at all.`);
  for (const reason of reasons.slice(0, OBSTACLES_SHOWN)) say(`  ${reason}`);
  const more = reasons.length - OBSTACLES_SHOWN;
  if (more > 0) say(`  and ${more} more`);
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
  check('write creates a file and its directory, and flushes them to the disk', () => {
    tarvek.write(root, REPORT, OLD);
  });
  check('read returns the same bytes', () => assert.deepEqual(tarvek.read(root, REPORT), OLD));
  check('write replaces a file in one step: a reader sees the old bytes or the new', () => {
    replaceWhileWatching(root, scratch);
  });
  check('create fails if the file exists', () => {
    tarvek.create(root, ['lock'], Buffer.from('held by me'));
    refused('OPTIMISTIC_CONFLICT', () => tarvek.create(root, ['lock'], NEW));
  });
  check('removeIfEquals keeps a file with other content than expected', () => {
    refused('OPTIMISTIC_CONFLICT', () =>
      tarvek.removeIfEquals(root, ['lock'], Buffer.from('held by you')),
    );
    assert.equal(tarvek.exists(root, ['lock']), true);
  });
  check('removeIfEquals removes a file with the expected content', () => {
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

  check('publishVerified refuses a draft that changed after its verification', () => {
    fs.appendFileSync(path.join(scratch, ...DRAFT), 'And a bug.\n');
    refused('CANDIDATE_CHANGED', publish);
    assert.equal(tarvek.exists(root, FINAL), false);
  });
  check('publishVerified gives an unchanged draft its final name', () => {
    fs.truncateSync(path.join(scratch, ...DRAFT), text.length);
    publish();
    assert.equal(tarvek.exists(root, DRAFT), false);
  });
  fs.closeSync(fd);
  check('snapshot reads all files of a directory', () => {
    const files = tarvek.snapshot(root, ['released']);
    assert.deepEqual(Object.entries(files), [['notes.txt', text]]);
  });
}

// --- The attack ---------------------------------------------------------------------------------

const NOTE = ['docs', 'note.txt'];
const INSIDE = 'inside the root';
const OUTSIDE = 'a secret from outside';

// Careful code on plain node:fs: it resolves the path, checks that the path lies inside, and uses
// it. Between the check and the use there is always a moment.
function readPlain(scratch, segments, inThatMoment) {
  const file = fs.realpathSync(path.join(scratch, ...segments));
  if (!file.startsWith(`${scratch}${path.sep}`)) throw new Error('refused: outside the root');
  inThatMoment();
  return fs.readFileSync(file, 'utf8');
}

// `docs` becomes a symlink to a directory outside, with a file of the same name.
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

// Runs a call and swaps at one moment of it: at a point of the test hook, or at a stage.
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
  check('node:fs with a path check: refuses a symlink that is there before the check', () => {
    duringSwap(place, () => {
      assert.throws(() => readPlain(scratch, NOTE, () => {}), { message: /outside the root/ });
    });
  });
  const attacked = () => {
    const read = readPlain(scratch, NOTE, () => swap(place));
    undoSwap(place);
    assert.equal(read, OUTSIDE);
    return `It read "${read}". tarvek has to refuse the same attack:`;
  };
  check(
    'attack succeeds against node:fs, as expected: swap after the check',
    attacked,
    yellow('!'),
  );
}

function attackTarvek(place) {
  const { root, outside } = place;
  for (const moment of ['ancestor-open', 'pre-effect']) {
    check(`tarvek.read refuses: swap at "${moment}"`, () => {
      attack(place, moment, () => tarvek.read(root, NOTE));
    });
  }
  const stages = ['after-temp-write', 'after-file-sync', 'before-file-rename'];
  for (const moment of ['ancestor-open', 'pre-effect', ...stages]) {
    check(`tarvek.write refuses: swap at "${moment}"`, () => {
      attack(place, moment, (stage) => tarvek.write(root, NOTE, NEW, stage));
    });
  }
  check('no file has changed, inside or outside', () => {
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
  ['The attack: at an exact moment, the directory docs is swapped for a symlink', playAttack],
];

async function workInScratch() {
  const place = makeScratch();
  // At exit, so that only a kill leaves it behind.
  process.once('exit', () => fs.rmSync(place.base, { recursive: true, force: true }));
  // Signals are handled between the steps, which take milliseconds.
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
  console.log(dim("On the right: the time of each step, the tour's own checks included.\n"));
  console.log(bold(`Capture ${opened.directory}`));
  if (opened.directory !== given) {
    say(`${given} leads there through a symlink. openRoot follows none, so the tour resolved it.`);
  }
  captureDirectory(opened, argument === undefined);
  tarvek.close(opened.root);
  await workInScratch();

  const { passed, failed } = outcomes;
  const verdict =
    failed === 0
      ? green(`All ${passed} steps went as they should.`)
      : red(`${failed} of ${passed + failed} steps went wrong.`);
  console.log(`\n${verdict} The tour took ${milliseconds(start)}.`);
  console.log(
    '\nNext: npx tarvek check DIR says what tarvek refuses in a directory of yours, and why;',
  );
  console.log('      examples/server.js stores uploads, with the functions of tarvek/promises.');
  return failed === 0;
}

// The reader may have seen enough, as `head` does.
process.stdout.on('error', () => process.exit(1));

tour(process.argv[2]).then((went) => {
  process.exitCode = went ? 0 : 1;
});
