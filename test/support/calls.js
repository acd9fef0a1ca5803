'use strict';

// Reads the listings in test/calls/: the system calls of each scenario (see scenarios.js), in
// order, and the outcome when a call goes wrong. The README.md there explains the format.

const fs = require('node:fs');
const path = require('node:path');

const FOLDER = path.join(__dirname, '../calls');
const GROUPS = {
  identity: ['device', 'inode'],
  type: ['link', 'special'],
  names: ['links', 'unlinked'],
  size: ['smaller', 'larger', 'negative'],
  times: ['mtime', 'mtimeNs', 'ctime', 'ctimeNs'],
};
GROUPS.all = [...Object.values(GROUPS).flat(), 'mode'];

// Turns "links type: outside; once mode: -" into an outcome for each word.
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
  const [told, notes] = line.trim().split(/ +! /);
  return { text: told.replace(/ +/g, ' '), notes: notes ? notesIn(notes) : {} };
};

// The lines of each scenario by its name, which is the heading above them.
const sections = new Map();
for (const file of fs.readdirSync(FOLDER).filter((name) => name.endsWith('.txt'))) {
  for (const section of fs.readFileSync(path.join(FOLDER, file), 'utf8').split(/\n(?=\S)/)) {
    const [name, ...lines] = section.split('\n').filter(Boolean);
    sections.set(name, lines.map(parseLine));
  }
}

module.exports = { listing: (name) => sections.get(name) ?? [] };
