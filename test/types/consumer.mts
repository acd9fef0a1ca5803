// Compiled by scripts/check-types.js, never run: what an ESM user may and may not write.

import type { HookPoint, RootHandle, Segments, WriteStage } from 'tarvek';
import * as everything from 'tarvek';
import tarvek, { openRoot, snapshot } from 'tarvek';

const path: Segments = ['photos'];
const root: RootHandle = everything.openRelative(openRoot('/srv/data'), path);
const photos: Record<string, Buffer> = snapshot(root, path);
const entry: typeof tarvek.open = everything.default.openRoot;

// Complete, and nothing beyond: a member that is missing or too many does not compile.
const stages: Record<WriteStage, number> = {
  ...{ 'after-temp-write': 1, 'after-file-sync': 2, 'before-file-rename': 3 },
  ...{ 'after-file-rename': 4, 'after-directory-sync': Object.keys(photos).length },
};
const points: Record<HookPoint, string> = {
  ...{ 'root-ancestor-open': '', 'relative-directory-open': '', 'external-create': '' },
  ...{ 'ancestor-open': '', 'pre-effect': '', 'publish-before-validation': '' },
  ...{ 'remove-if-equals-open': '', 'remove-if-equals-unlink': '' },
  ...{ 'append-leaf-open': '', 'append-write': '', 'append-data-fsync': '' },
  ...{ 'append-directory-fsync': '', 'capture-file-read': '', 'capture-directory-read': '' },
};
tarvek.setTestHook((event) => points[event.point].length);
tarvek.write(entry('/srv'), path, Buffer.alloc(stages['after-file-sync']));

// @ts-expect-error the brand is no export
everything.brand;
// @ts-expect-error the handle has no properties
root.fd;
// @ts-expect-error the functions return what they have, not a promise of it
everything.read(root, path).then;
