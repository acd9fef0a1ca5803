'use strict';

// Another name of openRoot, but a function of its own.

module.exports = {
  call: 'open @',
  takes: 'path',
  refuses: 'outside path',
  outcomes: `
    outside  open @l/0
    missing  open @nothing
    -        open @a`,
};
