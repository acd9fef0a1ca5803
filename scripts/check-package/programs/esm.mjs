import assert from 'node:assert';
import tarvek, { openRoot, snapshot } from 'tarvek';
import exercise from './exercise.cjs';

assert.strictEqual(openRoot, tarvek.openRoot);
assert.strictEqual(snapshot, tarvek.snapshot);
exercise(tarvek);
