'use strict';

// The failures that the functions of this folder find themselves, with the codes and messages of the
// native module, and what is told of an error of the system.

const FAILURES = {
  outside: ['PATH_OUT_OF_ROOT', 'Path validation refused outside the permitted root'],
  missing: ['NOT_FOUND', 'Requested repository-local record is absent'],
  storage: ['FILESYSTEM_FAILURE', 'Repository-local storage operation failed'],
  candidate: ['CANDIDATE_CHANGED', 'Verified release candidate changed before publication'],
  exists: ['OPTIMISTIC_CONFLICT', 'Repository-local record already exists'],
};
const CODES = new Set([...Object.values(FAILURES).map(([code]) => code), 'HANDLE_CLOSED']);

// As the native module maps them. Any other error is `storage`.
const MEANINGS = { ENOTDIR: 'outside', ELOOP: 'outside', ENOENT: 'missing' };

function errorOf({ code, message }, cause) {
  const error = new Error(message, cause && { cause });
  return Object.assign(error, { code });
}

function failure(name) {
  const [code, message] = FAILURES[name];
  return errorOf({ code, message });
}

// The code and message that are told of an error. The words of node:fs contain a path, and other
// errors, such as those of the permission model and of missing memory, may contain one.
function failureOf(error) {
  const { code, message } = CODES.has(error?.code)
    ? error
    : failure(MEANINGS[error?.code] ?? 'storage');
  return { code, message };
}

module.exports = { errorOf, failure, failureOf };
