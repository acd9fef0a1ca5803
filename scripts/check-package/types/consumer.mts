// Compiled by scripts/check-package.js, never run: what an ESM user may and may not write.

import type { RootHandle, Segments } from 'tarvek';
import * as everything from 'tarvek';
import tarvek, { openRoot, snapshot } from 'tarvek';
import * as why from 'tarvek/check';

const path: Segments = ['photos'];
const root: RootHandle = everything.openRelative(openRoot('/srv/data'), path);
const photos: Record<string, Buffer> = snapshot(root, path);
const entry: typeof tarvek.open = everything.default.openRoot;
tarvek.write(entry('/srv'), path, photos['a.jpg']);
const obstacles: why.Obstacle[] = [...why.check('data', path)];
why.format(obstacles[0]);

// @ts-expect-error the brand is no export
everything.brand;
// @ts-expect-error the handle has no properties
root.fd;
// @ts-expect-error the functions return what they have, not a promise of it
everything.read(root, path).then;
