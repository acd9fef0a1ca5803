'use strict';

// Another export of the code of openRoot, whose scenario is not repeated here.

module.exports = {
  call: 'open @',
  takes: 'path',
  refuses: 'outside path',
  outcomes: `
    outside  open @l/0
    missing  open @nothing
    -        open @a`,
};
