'use strict';

// Runs test files on the sanitizer build: node scripts/test-asan.js FILE...
// Fails if a test fails, if a sanitizer reports a fault, or if memory of the module leaked.

const { execFileSync, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');

const reports = fs.mkdtempSync(path.join(os.tmpdir(), 'tarvek-asan-'));
// For a test that goes on as another user.
fs.chmodSync(reports, 0o777);

// Every process writes a report of its own, because a test may hide what its children print. A fault
// aborts its process. A leak must not abort it or change its exit status: Node and others leak as they
// end.
const ASAN_OPTIONS = [
  `log_path=${path.join(reports, 'report')}`,
  "stack_trace_format='    #%n %m %F %S'",
  'abort_on_error=1',
  'allocator_may_return_null=1',
  'detect_leaks=1',
  'exitcode=0',
  // The runtime guesses where the thread-local memory of a loaded library is. If the guess is wrong, it
  // crashes while it looks for leaks. Node also refers to everything that the module refers to from
  // there.
  'intercept_tls_get_addr=0',
].join(':');
const UBSAN_OPTIONS = 'abort_on_error=1:print_stacktrace=1';

function runTests(files) {
  const env = {
    ...process.env,
    TARVEK_MODULE: path.join(__dirname, '..', 'build', 'Asan', 'tarvek.node'),
    // Node itself is not instrumented, so the runtime must be loaded before it starts.
    LD_PRELOAD: execFileSync('g++', ['-print-file-name=libasan.so'], { encoding: 'utf8' }).trim(),
    ASAN_OPTIONS,
    UBSAN_OPTIONS,
  };
  return spawnSync(process.execPath, ['--test', ...files], { env, stdio: 'inherit' }).status;
}

// A leak belongs to the first caller outside the runtime libraries. The C library keeps no frame pointers.
// So the caller that made it allocate, for example for a directory stream, is often unknown. Such a leak
// counts as the module's.
function isOurs(leak) {
  const isLibrary = (frame) => /^ +#\d+ \S+\/lib(asan|c|stdc\+\+)\.so\S* /.test(frame);
  const caller = leak
    .split('\n')
    .slice(1)
    .find((frame) => !isLibrary(frame));
  return !caller || caller.includes('/tarvek.node ');
}

function faultsIn(report) {
  return report.split(/^(?===\d+==)/m).flatMap((message) => {
    if (/^=*$|WARNING: AddressSanitizer failed to allocate/.test(message.trim())) return [];
    if (!message.includes('ERROR: LeakSanitizer: detected memory leaks')) return message;
    const parts = message.split('\n\n');
    return parts.filter((part) => /^(Direct|Indirect) leak/.test(part) && isOurs(part));
  });
}

try {
  const files = process.argv.slice(2);
  if (files.length === 0) throw new Error('usage: node scripts/test-asan.js FILE...');
  const status = runTests(files);
  const faults = fs
    .readdirSync(reports)
    .flatMap((name) => faultsIn(fs.readFileSync(path.join(reports, name), 'utf8')));
  for (const fault of faults) console.error(`\n${fault}`);
  console.log(`sanitizer reports: ${faults.length} faults`);
  process.exitCode = status === 0 && faults.length === 0 ? 0 : 1;
} finally {
  fs.rmSync(reports, { recursive: true });
}
