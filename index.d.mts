import tarvek from './index.js';

export * from './index.js';
export default tarvek;
