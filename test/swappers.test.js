'use strict';

// Another process exchanges entries without pause: a directory on the way for a symlink to one outside,
// or the file for an entry of another kind. Nothing foreign may be opened or published, and nothing
// outside may change. A control that goes by path proves each attack: it must be caught.

const assert = require('node:assert/strict');
const { spawn } = require('node:child_process');
const { createHash } = require('node:crypto');
const { once } = require('node:events');
const fs = require('node:fs');
const { open } = require('node:fs/promises');
const path = require('node:path');
const test = require('node:test');
const { openFile, publishFile, finishPublish } = require('../promises/index.js');
const { inRoot, outcomeOf, program } = require('./support/async-root.js');
const { place } = require('./support/harness.js');
const { symlink, fifo, build, treeOf } = require('./support/layouts.js');

// The full run swaps for a minute against each operation. The other one tries the first swap only.
const IS_FULL = process.env.TARVEK_TEST_FULL === '1';
const outside = path.join(place.base, 'outside');
const FROM = ['d', 'e', 'f'];
const TO = ['n', 'g'];
const sha256 = createHash('sha256').update('inside').digest('hex');
const EXPECTED = ['PATH_OUT_OF_ROOT', 'CANDIDATE_CHANGED'];
const linkTo = (target) => (at) => fs.linkSync(target, at);

// The directory with the two entries, one name, and what creates the entry with the name "other".
const PARENTS = {
  'a directory on the way': ['', 'd', symlink('../outside')],
  'the last directory': ['d', 'e', symlink('../../outside/e')],
};
const LEAVES = {
  'the file for a symlink': ['d/e', 'f', symlink('../../../outside/e/f')],
  'the file for a FIFO': ['d/e', 'f', fifo()],
  'the file for a hard link': ['d/e', 'f', linkTo(`${outside}/e/f`)],
};
const LAYOUT = { d: { e: { f: 'inside' } }, n: {} };

// `attempt` and `control` make one call, and resolve to what ends the round.
const OPERATIONS = {
  openFile: {
    swaps: { ...PARENTS, ...LEAVES },
    layout: LAYOUT,
    attempt: (root) => openFile(root, FROM).then(contentIfForeign),
    control: () => open(place.at(...FROM), fs.constants.O_NONBLOCK).then(contentIfForeign),
  },
  publishFile: {
    swaps: { ...PARENTS, ...LEAVES, 'the new directory': ['', 'n', symlink('../outside/e')] },
    layout: LAYOUT,
    async attempt(root) {
      const file = await openFile(root, FROM);
      try {
        await publishFile(root, file, FROM, TO, { sha256 });
      } finally {
        await file.close();
      }
      return true;
    },
    async control() {
      fs.linkSync(place.at(...FROM), place.at(...TO));
      fs.unlinkSync(place.at(...FROM));
      return true;
    },
  },
  finishPublish: {
    swaps: PARENTS,
    layout: { ...LAYOUT, n: { g: (at) => fs.linkSync(place.at(...FROM), at) } },
    attempt: (root) => finishPublish(root, FROM, TO),
    async control() {
      fs.unlinkSync(place.at(...FROM));
      return true;
    },
  },
};

async function contentIfForeign(file) {
  const content = (await file.stat()).isFile() ? String(await file.readFile()) : 'no file';
  await file.close();
  return content === 'inside' ? undefined : content;
}

// The whole disk outside, without the numbers of links: a swapped hard link is one of ours.
const imageOutside = () => JSON.stringify(treeOf(outside)).replace(/ \d+ /g, ' ');
const isPublished = ([at]) => /^(n|other)\/g$/.test(at);
const isRight = ([, image]) => /^100644 \d inside$/.test(image);

// Makes calls until one ends the round. Returns whether the attack had success. Adds the codes of the
// calls that were refused to `refusals`.
const refusals = new Set();
async function isHarmedInRound(layout, [directory, name, create], call, end) {
  let isHarmed = false;
  await inRoot(layout, async (root) => {
    build(outside, { f: 'outside', e: { f: 'outside' } });
    create(place.at(directory, 'other'));
    const image = imageOutside();
    const command = [program('swap.js'), place.at(directory), name, 'other'];
    const swapper = spawn(process.execPath, command);
    await once(swapper.stdout, 'data');
    let result;
    while (!result && Date.now() < end) {
      const outcome = await outcomeOf(call(root));
      if (outcome.thrown) refusals.add(outcome.thrown.code);
      result = outcome.result;
    }
    swapper.kill();
    await once(swapper, 'exit');
    const published = Object.entries(treeOf(place.root)).filter(isPublished);
    isHarmed =
      /outside|no file/.test(result) || !published.every(isRight) || imageOutside() !== image;
  });
  return isHarmed;
}

async function isHarmed(layout, swap, call, time) {
  const end = Date.now() + time;
  while (Date.now() < end) {
    if (await isHarmedInRound(layout, swap, call, end)) return true;
  }
  return false;
}

for (const [name, { swaps, layout, attempt, control }] of Object.entries(OPERATIONS)) {
  const all = Object.entries(swaps);
  for (const [what, swap] of IS_FULL ? all : all.slice(0, 1)) {
    test(`${name} stays inside while another process swaps ${what}`, async () => {
      assert.ok(await isHarmed(layout, swap, control, 60_000), 'the attack does not work');
      refusals.clear();
      const time = IS_FULL ? 60_000 / all.length : 300;
      assert.ok(!(await isHarmed(layout, swap, attempt, time)), 'the attack had success');
      const unexpected = [...refusals].filter((code) => !EXPECTED.includes(code));
      assert.deepEqual(unexpected, []);
    });
  }
}
