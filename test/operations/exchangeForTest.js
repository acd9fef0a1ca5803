'use strict';

const { OLD, TREE } = require('../support/layouts.js');

module.exports = {
  call: 'exchangeForTest =f =g',
  takes: 'handle name name',
  refuses: 'outside handle name',
  outcomes: `
    missing  exchangeForTest =f =nothing  exchangeForTest =nothing =f  exchangeForTest =\0 =f
    -        exchangeForTest =f\0x =twin\0  exchangeForTest =a =b\\`,
  scenarios: {
    'exchangeForTest =leaf =other': {
      before: [OLD, TREE],
      after: [TREE, OLD],
      inRootOnly: true,
      calls: `
        syscall renameat2 . leaf . other EXCHANGE`,
    },
  },
};
