'use strict';

// Another process exchanges entries without pause: a directory on the way for a symlink to one outside,
// or the file for an entry of another kind. Nothing foreign may be opened or published, nothing may be
// lost, and nothing outside may change. A control that opens by path proves each attack.

const assert = require('node:assert/strict');
const { spawn } = require('node:child_process');
const { createHash } = require('node:crypto');
const { once } = require('node:events');
const fs = require('node:fs');
const { open } = require('node:fs/promises');
const path = require('node:path');
const { openFile, publishFile, finishPublish } = require('../promises/index.js');
const { inRoot, outcomeOf } = require('./support/async-root.js');
const { place, table } = require('./support/harness.js');
const { build, fifo, symlink, treeOf } = require('./support/layouts.js');

const OUTSIDE = path.join(place.base, 'outside');
const SWAPPER = path.join(__dirname, 'programs/swap.js');
const FROM = ['d', 'e', 'f'];
const TO = ['d', 'e', 'g'];
const sha256 = createHash('sha256').update('inside').digest('hex');

// The directory of the entries, the name of one, and what creates the entry with the name "other".
const SWAPS = {
  'a directory on the way': ['', 'd', symlink('../outside')],
  'the file for a hard link': ['d/e', 'f', (at) => fs.linkSync(`${OUTSIDE}/e/f`, at)],
  'the last directory': ['d', 'e', symlink('../../outside/e')],
  'the file for a symlink': ['d/e', 'f', symlink('../../../outside/e/f')],
  'the file for a FIFO': ['d/e', 'f', fifo()],
};

// The full run swaps for a minute against each function. The other one tries the first two swaps.
const IS_FULL = process.env.TARVEK_TEST_FULL === '1';
const swaps = Object.entries(SWAPS).slice(0, IS_FULL ? undefined : 2);
const TIME = IS_FULL ? 60_000 / swaps.length : 200;

async function contentOf(opening) {
  const file = await opening;
  try {
    return (await file.stat()).isFile() ? String(await file.readFile()) : 'no file';
  } finally {
    await file.close();
  }
}

// Calls that resolve to the content of the file that they opened, if any.
const byPath = () => contentOf(open(place.at(...FROM), fs.constants.O_NONBLOCK));
const FUNCTIONS = {
  openFile: (root) => contentOf(openFile(root, FROM)),
  async publishFile(root) {
    const file = await openFile(root, FROM);
    try {
      await publishFile(root, file, FROM, TO, { sha256 });
    } finally {
      await file.close();
    }
  },
  async finishPublish(root) {
    await finishPublish(root, FROM, TO);
  },
};

// The disk outside, without the numbers of links: one swap creates a hard link.
const imageOutside = () => JSON.stringify(treeOf(OUTSIDE)).replace(/ \d+ /g, ' ');

// Makes calls until one was led astray or the time is over. Returns whether one was.
async function isLedAstray(directory, [where, , create], isLinked, call, time) {
  const image = imageOutside();
  const end = performance.now() + time;
  while (performance.now() < end) {
    for (const name of fs.readdirSync(directory)) fs.rmSync(`${directory}/${name}`);
    const file = fs.openSync(`${directory}/f`, 'w');
    fs.writeSync(file, 'inside');
    if (isLinked) fs.linkSync(`${directory}/f`, `${directory}/g`);
    if (where === 'd/e') create(`${directory}/other`);
    const { result = 'inside' } = await outcomeOf(call());
    const { ino, nlink } = fs.fstatSync(file);
    fs.closeSync(file);
    const published = fs.lstatSync(`${directory}/g`, { throwIfNoEntry: false });
    const isForeign = published !== undefined && published.ino !== ino;
    if (result !== 'inside' || nlink === 0 || isForeign || imageOutside() !== image) return true;
  }
  return false;
}

table('calls stay inside while another process swaps', swaps, (swap) =>
  inRoot({ d: { e: {} } }, async (root) => {
    build(OUTSIDE, { f: 'outside', e: { f: 'outside' } });
    // Leads to the directory, whatever takes its name, in mkfifo too.
    const fd = fs.openSync(place.at('d', 'e'));
    const directory = `/proc/${process.pid}/fd/${fd}`;
    const [where, entry, create] = swap;
    if (where !== 'd/e') create(place.at(where, 'other'));
    const swapper = spawn(process.execPath, [SWAPPER, place.at(where), entry, 'other']);
    try {
      await once(swapper.stdout, 'data');
      assert.ok(await isLedAstray(directory, swap, false, byPath, 60_000), 'the control is safe');
      for (const [name, call] of Object.entries(FUNCTIONS)) {
        const isLinked = name === 'finishPublish';
        const isAstray = await isLedAstray(directory, swap, isLinked, () => call(root), TIME);
        assert.equal(isAstray, false, `${name} was led astray`);
      }
    } finally {
      fs.closeSync(fd);
      swapper.kill();
      await once(swapper, 'exit');
    }
  }),
);
