// All failures that JavaScript can see, and the two ways to throw one.
//
// The convention everywhere: a function that detects a failure throws at once and returns a failure
// value (false, or a null napi_value). Its caller releases what it holds and returns, and does not
// throw again. So a failed call throws exactly one error.
//
// If a callback has already thrown, its exception stays. Node-API refuses to set a property or to
// throw while an exception is pending, so Throw has no effect then. Hook and stage callbacks rely
// on this: their own exception must reach the caller.
#pragma once

#include <node_api.h>

namespace tarvek {

struct Failure {
  const char* code;
  const char* message;
};

inline constexpr Failure kOutOfRoot{"PATH_OUT_OF_ROOT",
                                    "Path validation refused outside the permitted root"};
inline constexpr Failure kNotFound{"NOT_FOUND", "Requested repository-local record is absent"};
inline constexpr Failure kStorageFailed{"FILESYSTEM_FAILURE",
                                        "Repository-local storage operation failed"};
inline constexpr Failure kHandleClosed{"HANDLE_CLOSED", "Directory handle is closed"};
inline constexpr Failure kCandidateChanged{"CANDIDATE_CHANGED",
                                           "Verified release candidate changed before publication"};
inline constexpr Failure kAlreadyExists{"OPTIMISTIC_CONFLICT",
                                        "Repository-local record already exists"};
inline constexpr Failure kChangedBeforeRemoval{"OPTIMISTIC_CONFLICT",
                                               "Repository-local record changed before removal"};
inline constexpr Failure kChangedBeforeAppend{"OPTIMISTIC_CONFLICT",
                                              "Repository-local record changed before append"};
inline constexpr Failure kLinkPlaceTaken{"OPTIMISTIC_CONFLICT",
                                         "Repository-local integration entry already exists"};

// Only capture throws these. The words "snapshot source" are part of the interface.
inline constexpr Failure kSourceIsLink{"PATH_OUT_OF_ROOT", "symbolic link in snapshot source"};
inline constexpr Failure kSourceIsHardLinked{"PATH_OUT_OF_ROOT",
                                             "hard-linked snapshot source is forbidden"};
inline constexpr Failure kSourceIsSpecial{"PATH_OUT_OF_ROOT", "non-regular snapshot source"};
inline constexpr Failure kSourceReplaced{"PATH_OUT_OF_ROOT",
                                         "snapshot source identity changed while opening"};
inline constexpr Failure kSourceDuplicated{"PATH_OUT_OF_ROOT",
                                           "duplicate snapshot source identity"};
inline constexpr Failure kSourceChanged{"PATH_OUT_OF_ROOT", "snapshot source changed during copy"};
inline constexpr Failure kSourceDirectoryReplaced{
    "PATH_OUT_OF_ROOT", "snapshot directory identity changed while opening"};
inline constexpr Failure kSourceDirectoryChanged{"PATH_OUT_OF_ROOT",
                                                 "snapshot directory changed during copy"};

// Throws an Error with the failure's message, and its code in the property `code`. Returns null,
// which the operation returns to Node-API.
napi_value Throw(napi_env env, const Failure& failure);

// Throws the failure that the errno maps to. The number itself never reaches JavaScript. Pass errno
// directly after the failed call, before another call can overwrite it.
napi_value FailErrno(napi_env env, int errnum);

// The same two for helpers that return a bool: they throw and return false. They never return true,
// so one branch of `holds || Refuse(...)` cannot be covered.
inline bool Refuse(napi_env env, const Failure& failure) {
  Throw(env, failure);
  return false;
}

inline bool RefuseErrno(napi_env env, int errnum) {
  FailErrno(env, errnum);
  return false;
}

}  // namespace tarvek
