'use strict';

// Reads the listings of system calls in test/operations/. test/README.md explains the format.

const { constants } = require('node:os');
const fs = require('node:fs');
const path = require('node:path');
const { failures } = require('./harness.js');

// What a look at a file can report wrongly, and the words for several of these.
const GROUPS = {
  identity: ['device', 'inode'],
  type: ['link', 'special'],
  names: ['links', 'unlinked'],
  size: ['smaller', 'larger', 'negative'],
  times: ['mtime', 'mtimeNs', 'ctime', 'ctimeNs'],
};
const FIELDS = [...Object.values(GROUPS).flat(), 'mode'];
GROUPS.all = FIELDS;

const FAULTS = ['fails', 'short', 'zero', 'close', 'bytes', ...FIELDS];
const OUTCOMES = [...failures.keys(), '-', 'false', 'less', 'other'];

const isErrno = (word) => word in constants.errno;
// Directories that a hook swaps: each one on the way to this place, and the leaf below it.
const SWAPPED = /^(NEAR|FAR|HERE|DIR)\/(leaf\/)?$/;

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
    for (const word of words.split(' ').flatMap((one) => GROUPS[one] ?? one)) {
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
  const [name, ...parameters] = heading.replace(/:.*/, '').split(' ');
  sequences.set(name, { parameters, steps: parse(rest.join('\n')) });
}

const textsOf = (calls) => calls.map(({ text }) => text);

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
    const [name, ...args] = text.split(' ');
    if (!sequences.has(name)) return [{ text, notes }];
    const { parameters, steps } = sequences.get(name);
    const given = Object.fromEntries(args.map((arg, i) => [parameters[i], arg]));
    const directories = stepsTo(given.DIR);
    const isRepeated = steps.some((step) => step.text.includes('UP'));
    return (isRepeated ? directories : [{}]).flatMap((at) => {
      const defaults = { POINT: 'ancestor-open', '#DIR': directories.length };
      const inner = { ...words, ...at, ...defaults, ...given };
      return steps.flatMap((step) => {
        const noted = addNotes({ ...step, text: fill(step.text, inner) }, notes);
        const shared = `${name}: ${step.text} ${JSON.stringify(noted.notes)}`;
        return expand([noted], inner).map((call) => ({ shared, ...call }));
      });
    });
  });
}

// The sequences at places of a listing, each as its line and its calls, the longest first.
function sequencesAt(points, words) {
  const places = ['NEAR', 'FAR', 'NEAR/leaf', 'NEAR/leaf/s'];
  const ends = ['', 'leaf', 'other', ...points];
  const lines = [...sequences.keys()].flatMap((name) =>
    places.flatMap((at) => ends.map((end) => `${name} ${at} ${end}`.trim())),
  );
  const found = lines.map((line) => ({ line, calls: textsOf(expand(parse(line), words)) }));
  return found
    .filter(({ calls }) => calls.length > 1)
    .sort((a, b) => b.calls.length - a.calls.length);
}

// The reverse of expand and fill, as a text.
function fold(calls, words) {
  const hooks = calls.filter((call) => call.startsWith('hook '));
  const points = new Set(hooks.map((call) => call.split(' ')[1]));
  let text = `${calls.join('\n')}\n`;
  for (const sequence of sequencesAt(points, words)) {
    text = text.replaceAll(`${sequence.calls.join('\n')}\n`, `${sequence.line}\n`);
  }
  const { NEAR, FAR } = words;
  if (NEAR === '.') return text;
  return text
    .replace(RegExp(` ${NEAR}\\b`, 'g'), ' NEAR')
    .replace(RegExp(` ${FAR}\\b`, 'g'), ' FAR');
}

module.exports = { FIELDS, parse, expand, fold, textsOf };
