'use strict';

// The module under test: the package as its users load it, or the build that TARVEK_MODULE names.
module.exports = require(process.env.TARVEK_MODULE || '../..');
