'use strict';

// Runs what the files of test/operations/ say of each function: its results, the entries and the
// arguments that it refuses, and hostile changes at each of its hook points and stages. Every call
// is compared with its outcome and with the whole disk.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const test = require('node:test');
const { isExternal } = require('node:util').types;
const { CLOSED, calls, replaceAt, wrongCalls } = require('./support/arguments.js');
const { assertTree, attempt, expectCall, expectPassedOn } = require('./support/harness.js');
const { prepare, sandbox, table } = require('./support/harness.js');
const { build } = require('./support/layouts.js');
const { operations } = require('./support/operations.js');
const { fitting, kinds, scenarios } = require('./support/rows.js');
const tarvek = require('./support/tarvek.js');

const TYPES = fs.readFileSync(path.join(__dirname, '../index.d.ts'), 'utf8');
const HELP = '(CONTRIBUTING.md, "A new function", says what goes into it)';

// What the file of a function must say.
function partsOf({ call, takes, special }) {
  const parts = special ? [] : ['call'];
  if (call) parts.push('takes', 'refuses');
  if (/segments|paths/.test(takes)) parts.push('kinds', 'scenarios');
  return parts;
}

test('each function has its types, and tests in test/operations/', () => {
  const declared = Array.from(TYPES.matchAll(/^export function (\w+)/gm), ([, name]) => name);
  const names = new Set([...Object.keys(tarvek), ...declared, ...operations.keys()]);
  const lacking = [];
  for (const name of names) {
    if (!(name in tarvek)) lacking.push(`an export ${name}`);
    if (!declared.includes(name)) lacking.push(`the declaration of ${name} in index.d.ts`);
    const file = operations.get(name);
    if (!file) lacking.push(`test/operations/${name}.js ${HELP}`);
    const parts = file ? partsOf(file).filter((part) => !file[part]) : [];
    lacking.push(...parts.map((part) => `${part} in ${name}.js ${HELP}`));
  }
  assert.deepEqual(lacking, [], 'add these');
});

const succeeding = scenarios.map((scenario) => [scenario.name, scenario]);

table('each operation succeeds, even if its hook calls the module', succeeding, (scenario) => {
  sandbox(scenario.before, (ctx) => {
    let isInside = false;
    const hook = () => {
      if (isInside) return;
      isInside = true;
      tarvek.close(tarvek.openRoot(ctx.root));
      isInside = false;
    };
    const result = expectCall('-', ctx, scenario.call, hook);
    scenario.check(result, ctx);
    assertTree(scenario.after);
  });
});

const special = [...operations].flatMap(([name, operation]) =>
  Object.entries(operation.special ?? {}).map(([what, body]) => {
    return [`${name}, ${what}`, operation.layout ?? {}, body];
  }),
);
table('an operation does what is special about it', special, sandbox);

// After an outcome, the directory `made` exists only if the call names it, and `never` does not. A call
// that needs an entry does not create its parent directory.
function expectRow(layout, call, expected) {
  sandbox(layout, (ctx) => {
    const result = expectCall(expected, ctx, call);
    if (isExternal(result)) tarvek.close(result);
    assert.equal(fs.existsSync(ctx.at('made')), call.includes(' made/'), '`made` exists');
    assert.equal(fs.existsSync(ctx.at('never')), false, '`never` exists');
    if (expected !== 'missing') return;
    assert.equal(fs.existsSync(ctx.at('d')), layout.d !== undefined, '`d` exists');
  });
}
table('a wrong kind of entry at the leaf or above it is refused', kinds, expectRow);
table('arguments that do not fit the disk or each other are refused', fitting, expectRow);

table('a bad argument is refused before any hook or change', wrongCalls, (layout, words, wrong) => {
  sandbox(layout, (ctx) => {
    const closed = tarvek.openRoot(ctx.root);
    tarvek.close(closed);
    const [operation, good] = prepare(ctx, words);
    const early = () => assert.fail('a hook was called');
    for (const { what, failure, args } of wrong(good)) {
      const call = [operation, args.map((value) => (value === CLOSED ? closed : value))];
      assert.doesNotThrow(() => expectCall(failure, ctx, call, early), what);
    }
  });
});

// One row for each path that a call takes: callWith(ctx, path) is the call with another path there.
const withPaths = calls.flatMap(([name, layout, words, kindsOf, order]) =>
  kindsOf.flatMap((kind, index) => {
    if (kind !== 'paths' && kind !== 'segments') return [];
    const callWith = (ctx, segments) => {
      const [operation, args] = prepare(ctx, words);
      return [operation, replaceAt(args, index, kind === 'paths' ? [segments] : segments)];
    };
    return [[`${name}, argument ${index}`, layout, callWith, order]];
  }),
);

// Too long by one byte, with a last character of one to four bytes.
const LAST = ['x', 'é', '語', '😀'];
const TOO_LONG = LAST.map((last) => 'x'.repeat(256 - Buffer.byteLength(last)) + last);
const withGetter = (get) => Object.defineProperty(['f'], 0, { get });

table('a long name or a hostile getter in a path fails', withPaths, (layout, callWith, order) => {
  sandbox(layout, (ctx) => {
    for (const name of TOO_LONG) expectCall('storage', ctx, callWith(ctx, [name, 'leaf']));
    expectPassedOn((thrower) => attempt(ctx, callWith(ctx, withGetter(thrower))));
    const closing = withGetter(() => {
      tarvek.close(ctx.handle);
      return 'f';
    });
    // The check of the handle sees it, or the walk does.
    expectCall(order.includes('closed') ? 'closed' : 'storage', ctx, callWith(ctx, closing));
  });
});

// Each swap renames the directory: if it were removed and created again, it could get its old inode
// number, and no check could see the swap. The decoys contain what the operation looks for.
const SWAPS = {
  'by another directory': (directory, decoy) => fs.renameSync(decoy, directory),
  'by a symlink to another directory': (directory, decoy) => fs.symlinkSync(decoy, directory),
  'by a symlink to itself': (directory, _, away) => fs.symlinkSync(away, directory),
  'by nothing': () => {},
};
function swapDirectory(ctx, name, layout, swap) {
  const outside = path.join(ctx.base, 'outside');
  const away = path.join(ctx.base, 'away');
  const decoy = path.join(outside, name);
  build(outside, layout);
  fs.mkdirSync(decoy, { recursive: true });
  fs.renameSync(ctx.at(name), away);
  swap(ctx.at(name), decoy, away);
}

// The bytes of a call get memory of their own, which a hook can transfer ("gone") or, except in old
// versions of Node, resize. Memory that grew still holds the bytes.
const GROWN = 30;
const LENGTHS = ArrayBuffer.prototype.resize ? ['gone', 0, 2, GROWN] : ['gone'];
function changeMemory({ memory }, length) {
  if (length === 'gone') structuredClone(memory, { transfer: [memory] });
  else memory.resize(length);
}
function prepareWithMemory(ctx, call) {
  const [operation, args] = prepare(ctx, call);
  const withMemory = args.map((value) => {
    if (!Buffer.isBuffer(value)) return value;
    ctx.memory = new ArrayBuffer(value.length, { maxByteLength: 64 });
    const bytes = new Uint8Array(ctx.memory);
    bytes.set(value);
    return bytes;
  });
  return [operation, withMemory];
}

// The attacks at one hook point or stage: [what happens, attack, outcome].
function attacksAt(notes, { call, before }) {
  const attacks = [['handle closed', (ctx) => tarvek.close(ctx.handle), notes.close]];
  for (const directory of Object.keys(notes).filter((name) => name.endsWith('/'))) {
    for (const [how, swap] of Object.entries(SWAPS)) {
      const act = (ctx) => swapDirectory(ctx, directory.slice(0, -1), before, swap);
      attacks.push([`${directory} swapped ${how}`, act, notes[directory]]);
    }
  }
  const lengths = / (OLD|NEW)/.test(call) ? LENGTHS : [];
  for (const length of lengths) {
    const act = (ctx) => changeMemory(ctx, length);
    attacks.push([`bytes ${length}`, act, length === GROWN ? '-' : notes.bytes]);
  }
  return attacks;
}

// Calls `act` at this event only.
const when = (wanted, act) => (event) => {
  if (Object.keys(event).every((key) => event[key] === wanted[key])) act();
};

const points = scenarios.flatMap((scenario) =>
  scenario.hooks.map(({ event, notes }) => {
    const name = `${scenario.name}, at ${Object.values(event).join(' ')}`;
    return { name, scenario, event, notes };
  }),
);
const attacks = points.flatMap(({ name, scenario, event, notes }) =>
  attacksAt(notes, scenario).map(([what, act, expected = '-']) => {
    return [`${name}, ${what}`, scenario, event, act, expected];
  }),
);

table('an attack at any hook ends as listed', attacks, (scenario, event, act, expected) => {
  sandbox(scenario.before, (ctx) => {
    const call = prepareWithMemory(ctx, scenario.call);
    const attack = when(event, () => act(ctx));
    const result = expectCall(expected, ctx, call, attack);
    if (expected === '-') scenario.check(result, ctx);
  });
});

const throwing = points.map(({ name, scenario, event }) => [name, scenario, event]);

table('what a hook or a stage throws reaches the caller', throwing, (scenario, event) => {
  sandbox(scenario.before, (ctx) => {
    expectPassedOn((thrower) => attempt(ctx, scenario.call, when(event, thrower)));
  });
});
