'use strict';

const load = require('./load.js');

// The functions in an object of their own, where they can be seen, enumerated and mocked. The native
// module's properties cannot. Both lists are written out: Node.js and bundlers read the names that
// `import` offers from the text of the second one.
const {
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
} = load();

module.exports = {
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
};
