'use strict';

require('./exercise.cjs')(require('tarvek'));
