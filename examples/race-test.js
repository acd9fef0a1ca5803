'use strict';

// How to test that an application stays safe while another process changes the disk.
//
// tarvek calls the test hook at named points inside its functions, and the stage callback at the
// stages of one write. The first test runs the application once to record all these moments. Then
// it runs it once for each moment, with an attack at that moment. The second test lets a write fail
// at each stage.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const test = require('node:test');
const tarvek = require('tarvek');

// The application under test. Only tests pass a stage callback. It is a rest parameter since tarvek
// refuses an explicit `undefined`.
function saveNote(root, author, text, ...onStage) {
  tarvek.write(root, ['notes', author, 'latest.txt'], Buffer.from(text), ...onStage);
}

// A root with one note in it, and a directory outside with a file of the same name.
function makePlace() {
  const base = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-race-')));
  const outside = path.join(base, 'outside');
  const notes = path.join(base, 'root', 'notes', 'ann');
  for (const directory of [outside, notes]) {
    fs.mkdirSync(directory, { recursive: true });
    fs.writeFileSync(path.join(directory, 'latest.txt'), 'old');
  }
  const root = tarvek.openRoot(path.join(base, 'root'));
  const remove = () => {
    tarvek.close(root);
    fs.rmSync(base, { recursive: true });
  };
  return { root, outside, notes, remove };
}

// From the rename on, the new note is in place. An attack is too late then, and is not refused.
const inPlaceAt = (moment) => ['after-file-rename', 'after-directory-sync'].includes(moment);

const contents = (directory) =>
  fs.readdirSync(directory).map((name) => fs.readFileSync(path.join(directory, name), 'utf8'));

// Saves a note and calls `at(moment)` at every point and stage. Returns the code if tarvek refuses.
function saveObserved(root, at) {
  tarvek.setTestHook(({ point, segment }) => at(`${point} ${segment}`));
  try {
    saveNote(root, 'ann', 'new', at);
    return undefined;
  } catch (error) {
    if (!error.code) throw error;
    return error.code;
  } finally {
    tarvek.setTestHook();
  }
}

function momentsOfSave() {
  const { root, remove } = makePlace();
  const moments = [];
  saveObserved(root, (moment) => moments.push(moment));
  remove();
  return moments;
}

function attackAt(attacked) {
  const { root, outside, notes, remove } = makePlace();
  try {
    const code = saveObserved(root, (moment) => {
      if (moment !== attacked) return;
      fs.renameSync(notes, `${notes}-moved`);
      fs.symlinkSync(outside, notes);
    });
    assert.deepEqual(contents(outside), ['old'], 'nothing outside has changed');
    const expected = inPlaceAt(attacked) ? [undefined, ['new']] : ['PATH_OUT_OF_ROOT', ['old']];
    assert.deepEqual([code, contents(`${notes}-moved`)], expected);
  } finally {
    remove();
  }
}

function failAt(stage) {
  const { root, notes, remove } = makePlace();
  const failure = new Error(`fails at ${stage}`);
  const throwThere = (now) => {
    if (now === stage) throw failure;
  };
  try {
    assert.throws(
      () => saveNote(root, 'ann', 'new', throwThere),
      (error) => error === failure,
    );
    const expected = inPlaceAt(stage) ? 'new' : 'old';
    assert.deepEqual(contents(notes), [expected], 'one whole note and no other file');
  } finally {
    remove();
  }
}

function raceTests() {
  test('a note stays inside when its directory is swapped for a symlink', async (t) => {
    const moments = momentsOfSave();
    assert.equal(moments.length, 8, moments.join());
    for (const moment of moments) await t.test(moment, () => attackAt(moment));
  });

  test('a failed save leaves the old note or the new one', async (t) => {
    const stages = momentsOfSave().filter((moment) => /^(after|before)-/.test(moment));
    assert.equal(stages.length, 5, stages.join());
    for (const stage of stages) await t.test(stage, () => failAt(stage));
  });
}

module.exports = { raceTests };

if (require.main === module) raceTests();
