import tarvek from './index.js';

// By name, since a list is what makes them importable: Node finds the names of a CommonJS module in
// its text, and those of a native one are not there.
export const {
  open,
  openRoot,
  openRelative,
  close,
  rootIdentity,
  exists,
  list,
  capture,
  snapshot,
  read,
  write,
  create,
  append,
  ensureDirectory,
  ensureRelativeSymlink,
  remove,
  removeIfEquals,
  move,
  publishVerified,
  setTestHook,
  exchangeForTest,
} = tarvek;

export default tarvek;
