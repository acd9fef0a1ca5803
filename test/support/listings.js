'use strict';

// Reads the listings of system calls in test/operations/. test/README.md explains the format.

const { constants } = require('node:os');
const fs = require('node:fs');
const path = require('node:path');
const { failures } = require('./harness.js');

// The ways in which a look at a file can report something that is not so.
const FIELDS = {
  identity: ['device', 'inode'],
  type: ['link', 'special'],
  names: ['links', 'unlinked'],
  size: ['smaller', 'larger', 'negative'],
  times: ['mtime', 'mtimeNs', 'ctime', 'ctimeNs'],
};
FIELDS.all = [...Object.values(FIELDS).flat(), 'mode'];

const FAULTS = ['fails', 'short', 'zero', 'close', 'bytes', ...FIELDS.all];
const OUTCOMES = [...failures.keys(), '-', 'false', 'less', 'other'];

const isErrno = (word) => word in constants.errno;
// Directories that a hook swaps: each one on the way to this place, and the leaf below it.
const SWAPPED = /^(NEAR|FAR|HERE)\/(leaf\/)?$/;

function checkNote(word, outcome) {
  if (!FAULTS.includes(word) && !isErrno(word) && !SWAPPED.test(word)) {
    throw new Error(`a listing has an unknown fault: ${word}`);
  }
  if (!OUTCOMES.includes(outcome)) {
    throw new Error(`a listing has an unknown outcome: ${outcome}`);
  }
}

// Turns "links type: outside; once mode: -" into one outcome for each word, such as "once mode".
function parseNotes(text) {
  const notes = {};
  for (const part of text.split('; ')) {
    const [, once = '', words, outcome] = /^(once )?(.*): (.*)$/.exec(part);
    for (const word of words.split(' ').flatMap((one) => FIELDS[one] ?? one)) {
      checkNote(word, outcome);
      notes[once + word] = outcome;
    }
  }
  return notes;
}

function parseLine(line) {
  const [call, notes] = line.trim().split(/ +! /);
  return { text: call.replace(/ +/g, ' '), notes: notes ? parseNotes(notes) : {} };
}

const parse = (text) => text.split('\n').filter(Boolean).map(parseLine);

// The named sequences. A heading is the name and what stands for its arguments.
const SEQUENCES = path.join(__dirname, 'sequences.txt');
const sequences = new Map();
for (const section of fs.readFileSync(SEQUENCES, 'utf8').split('\n\n')) {
  const [heading, ...rest] = section.split('\n');
  sequences.set(heading.split(' ')[0], parse(rest.join('\n')));
}

// Puts paths in the place of words in capitals. "." in front of a name is left out.
function fill(text, words) {
  const filled = text.replace(/#?\b[A-Z]+\b/g, (word) => words[word] ?? word);
  return filled.replace(/(^| )\.\//g, '$1');
}

// The words of a sequence that is repeated for each directory on the way to `at`.
function stepsTo(at) {
  const names = at === '.' ? [] : at.split('/');
  return names.map((name, index) => ({
    UP: names.slice(0, index).join('/') || '.',
    NAME: name,
    HERE: names.slice(0, index + 1).join('/'),
    INDEX: index,
  }));
}

// The notes of a line: NEAR/ becomes one note for each directory on the way to NEAR, and NEAR/leaf/
// one for the leaf as well.
function fillNotes(notes, words) {
  const filled = {};
  for (const [word, outcome] of Object.entries(notes)) {
    const [, name, leaf] = SWAPPED.exec(word) ?? [];
    const targets = name ? stepsTo(words[name]).map(({ HERE }) => `${HERE}/`) : [word];
    if (leaf) targets.push(fill(word, words));
    for (const target of targets) filled[target] = outcome;
  }
  return filled;
}

// Adds the notes on the line of a sequence to one of its calls: errnos to an open, others to a hook.
function addNotes({ text, notes }, added) {
  if (sequences.has(text.split(' ')[0])) return { text, notes: { ...notes, ...added } };
  const isOpen = /^openat.*CLOEXEC$/.test(text);
  const isHook = text.startsWith('hook');
  const matching = Object.entries(added).filter(([word]) => (isErrno(word) ? isOpen : isHook));
  return { text, notes: { ...notes, ...Object.fromEntries(matching) } };
}

// The lines with every sequence replaced by its calls, and every word in capitals by a path. A call
// of a sequence has the line of that sequence as `shared`.
function expand(lines, words) {
  return lines.flatMap((line) => {
    const text = fill(line.text, words);
    const notes = fillNotes(line.notes, words);
    const [name, DIR, POINT = 'ancestor-open'] = text.split(' ');
    const steps = sequences.get(name);
    if (!steps) return [{ text, notes }];
    const isRepeated = steps.some((step) => step.text.includes('UP'));
    const places = isRepeated ? stepsTo(DIR) : [{}];
    return places.flatMap((at) => {
      const inner = { ...words, ...at, DIR, POINT };
      return steps.flatMap((step) => {
        const noted = addNotes(step, notes);
        const shared = `${name}: ${step.text} ${JSON.stringify(noted.notes)}`;
        return expand([noted], inner).map((call) => ({ shared, ...call }));
      });
    });
  });
}

// The longest sequence at the start of these calls, as [line, number of its calls].
function sequenceAt(calls) {
  const places = new Set(calls.flatMap((call) => call.split(' ').slice(1)));
  const points = new Set(calls.flatMap((call) => /^hook (\S+)/.exec(call)?.[1] ?? []));
  let best = [calls[0], 1];
  for (const name of sequences.keys()) {
    for (const at of places) {
      for (const point of ['', ...points]) {
        const line = `${name} ${at} ${point}`.trim();
        const texts = expand([{ text: line, notes: {} }], {}).map(({ text }) => text);
        const isHere = texts.every((text, i) => text === calls[i]);
        if (isHere && texts.length > best[1]) best = [line, texts.length];
      }
    }
  }
  return best;
}

// The reverse of expand: the calls with the names of the sequences in them.
function fold(calls) {
  const folded = [];
  for (let i = 0; i < calls.length; ) {
    const [line, length] = sequenceAt(calls.slice(i));
    folded.push(line);
    i += length;
  }
  return folded;
}

// The reverse of fill, for directories below the root.
function unfill(text, { NEAR, FAR, '#NEAR': depth, '#FAR': otherDepth }) {
  if (depth === 0) return text;
  return text
    .replaceAll(NEAR, 'NEAR')
    .replaceAll(FAR, 'FAR')
    .replace(`leaf ${depth}`, 'leaf #NEAR')
    .replace(`other ${otherDepth}`, 'other #FAR');
}

// What differs, in lines with - and +, between the lines that are the same.
function differenceOf(listed, actual, words) {
  const [before, after] = [listed, actual].map((calls) => {
    return fold(calls).map((line) => unfill(line, words));
  });
  const same = [];
  while (after.length > 0 && before[0] === after[0]) {
    same.push(`  ${after.shift()}`);
    before.shift();
  }
  const rest = [];
  while (after.length > 0 && before.at(-1) === after.at(-1)) {
    rest.unshift(`  ${after.pop()}`);
    before.pop();
  }
  const lacking = before.map((line) => `- ${line}`);
  const added = after.map((line) => `+ ${line}`);
  return [...same, ...lacking, ...added, ...rest].join('\n');
}

module.exports = { FIELDS: FIELDS.all, parse, expand, differenceOf };
