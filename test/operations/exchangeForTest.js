'use strict';

const { assertTree, expectCall } = require('../support/harness.js');
const { OLD, TREE } = require('../support/layouts.js');

module.exports = {
  call: 'exchangeForTest =f =g',
  takes: 'handle name name',
  refuses: 'outside handle name',
  outcomes: `
    missing  exchangeForTest =f =nothing  exchangeForTest =nothing =f  exchangeForTest =\0 =f
    -        exchangeForTest =f\0x =twin\0  exchangeForTest =a =b\\`,
  layout: { f: OLD, g: TREE },
  special: {
    'two entries change places': (ctx) => {
      expectCall('-', ctx, 'exchangeForTest =f =g');
      assertTree({ f: TREE, g: OLD });
    },
  },
};
