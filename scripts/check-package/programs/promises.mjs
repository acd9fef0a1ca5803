// Prints whether the promises work where this program is, or what they reject with.

import { close, openRoot } from 'tarvek/promises';

openRoot(process.cwd())
  .then(close)
  .then(
    () => console.log('works'),
    ({ message }) => console.log(message),
  );
