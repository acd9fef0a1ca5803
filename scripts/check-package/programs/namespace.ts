// The whole module by `import *`, and one function by name. Compiled to CommonJS and bundled before it
// is run, by tools that copy what they see of the module.

import * as tarvek from 'tarvek';
import { openRoot } from 'tarvek';

const root = tarvek.openRoot(process.cwd());
const found = tarvek.exists(root, ['package.json']);
tarvek.close(root);
if (!found || tarvek.openRoot !== openRoot) throw new Error('the module is not as it should be');
