import assert from 'node:assert';
import tarvek, { openRoot, snapshot } from 'tarvek';
import { check } from 'tarvek/check';
import exercise from './exercise.cjs';

assert.strictEqual(openRoot, tarvek.openRoot);
assert.strictEqual(snapshot, tarvek.snapshot);
assert.deepStrictEqual([...check('node_modules', ['tarvek'])], []);
exercise(tarvek);
