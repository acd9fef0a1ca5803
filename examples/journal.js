'use strict';

// A journal for one writer. Each entry is appended to one file and flushed, and a crash at any
// moment loses no entry whose append had returned.
//
// A line holds a checksum and an entry as JSON. A crash during an append can leave part of a line
// at the end, and an append whose flush failed can leave lines that the disk does not have. So
// opening the journal writes its good lines anew, in one step.

const { createHash } = require('node:crypto');
const tarvek = require('tarvek');

const CHECKSUM_LENGTH = 16;

function toLine(text) {
  const checksum = createHash('sha256').update(text).digest('hex').slice(0, CHECKSUM_LENGTH);
  return `${checksum} ${text}`;
}

// Undefined if the checksum does not match.
function fromLine(line) {
  const text = line.slice(CHECKSUM_LENGTH + 1);
  return line === toLine(text) ? JSON.parse(text) : undefined;
}

// The entries, and how many bytes their lines take. The bytes after these are the torn tail.
function parse(bytes) {
  const entries = [];
  let size = 0;
  let start = 0;
  for (let end = bytes.indexOf('\n'); end !== -1; end = bytes.indexOf('\n', start)) {
    const entry = fromLine(bytes.toString('utf8', start, end));
    const isAfterBadLine = start !== size;
    start = end + 1;
    if (entry === undefined) continue;
    // This journal never appends after a bad line. To cut here would lose good entries.
    if (isAfterBadLine) throw new Error('the journal is damaged before its end');
    entries.push(entry);
    size = start;
  }
  return { entries, size };
}

function openJournal(root, file) {
  const bytes = tarvek.exists(root, file) ? tarvek.read(root, file) : Buffer.alloc(0);
  const { entries, size } = parse(bytes);
  if (bytes.length > 0) tarvek.write(root, file, bytes.subarray(0, size));

  let known = size;

  // Throws OPTIMISTIC_CONFLICT if the file is shorter than the entries that this journal knows.
  function append(entry) {
    if (known === undefined) throw new Error('an append failed: open the journal again');
    const line = Buffer.from(`${toLine(JSON.stringify(entry))}\n`);
    const start = known;
    // If the append fails, the end of the file is unknown. A line after a torn one would be lost.
    known = undefined;
    try {
      tarvek.append(root, file, start, start, line);
    } catch (error) {
      // A refused append wrote nothing, so the caller may repeat it.
      if (error.code === 'PATH_OUT_OF_ROOT') known = start;
      throw error;
    }
    known = start + line.length;
  }

  return { entries, append };
}

module.exports = { openJournal };

if (require.main === module) {
  const fs = require('node:fs');
  const os = require('node:os');
  const path = require('node:path');

  const directory = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-journal-')));
  const root = tarvek.openRoot(directory);
  const file = ['books', 'cash.journal'];
  const onDisk = path.join(directory, ...file);
  try {
    const journal = openJournal(root, file);
    for (const amount of [5, -2, 8]) journal.append({ amount });
    console.log(
      'written:  ',
      fs.readFileSync(onDisk, 'utf8').trimEnd().split('\n').length,
      'entries',
    );

    fs.appendFileSync(onDisk, toLine('{"amount":100}').slice(0, 20));
    const reopened = openJournal(root, file);
    console.log('recovered:', JSON.stringify(reopened.entries), 'and cut off a torn fourth entry');

    fs.truncateSync(onDisk, 10);
    try {
      reopened.append({ amount: 1 });
    } catch (error) {
      console.log('cut short:', error.code);
    }
  } finally {
    tarvek.close(root);
    fs.rmSync(directory, { recursive: true });
  }
}
