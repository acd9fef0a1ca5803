'use strict';

// Reads the listings in test/calls/: the system calls of each scenario (see scenarios.js) in their
// order, and the outcome if one of them goes wrong. test/calls/README.md explains the format.

const fs = require('node:fs');
const path = require('node:path');

const LISTINGS = path.join(__dirname, '../calls');
const GROUPS = {
  identity: ['device', 'inode'],
  type: ['link', 'special'],
  names: ['links', 'unlinked'],
  size: ['smaller', 'larger', 'negative'],
  times: ['mtime', 'mtimeNs', 'ctime', 'ctimeNs'],
};
GROUPS.all = [...Object.values(GROUPS).flat(), 'mode'];

// Turns "links type: outside; once mode: -" into one outcome for each word, such as "once mode".
function notesIn(text) {
  const notes = {};
  for (const part of text.split('; ')) {
    const [, once = '', words, outcome] = /^(once )?(.*): (\S+)$/.exec(part);
    for (const word of words.split(' ').flatMap((one) => GROUPS[one] ?? one)) {
      notes[once + word] = outcome;
    }
  }
  return notes;
}

const parseLine = (line) => {
  const [call, notes] = line.trim().split(/ +! /);
  return { text: call.replace(/ +/g, ' '), notes: notes ? notesIn(notes) : {} };
};

// The lines of each scenario, by its name. The name is the heading above the lines.
const sections = new Map();
for (const file of fs.readdirSync(LISTINGS).filter((name) => name.endsWith('.txt'))) {
  for (const section of fs.readFileSync(path.join(LISTINGS, file), 'utf8').split(/\n(?=\S)/)) {
    const [name, ...lines] = section.split('\n').filter(Boolean);
    sections.set(name, lines.map(parseLine));
  }
}

module.exports = { listing: (name) => sections.get(name) ?? [] };
