// The way from a root to the parent directory of a leaf. Every operation on a segment array except
// openRelative takes the same steps:
//
//   OpenParent   walks to the parent directory, checks every step and records it
//   PreEffect    fires "pre-effect", then validates the recorded chain
//   ...          looks at the leaf by its name in parent.fd, and acts
//
// Functions here that take `env` return false after throwing, and the operation then returns at
// once.
#pragma once

#include <node_api.h>

#include <span>
#include <string>
#include <vector>

#include "addon/arguments.h"
#include "addon/root.h"
#include "confine/descriptor.h"
#include "confine/identity.h"

namespace tarvek {

// The walk of one call. `segments` and `identities` run in parallel and leave out the root itself.
struct Parent {
  Descriptor fd;                          // the directory reached
  std::span<const std::string> segments;  // the names walked, in the operation's own array
  std::vector<Identity> identities;
};

// With `create`, creates missing directories with mode 0700 before the umask, and flushes each
// one's parent. They stay if a later step fails. With `missing`, reports a missing directory there
// instead of throwing.
bool OpenParent(napi_env env, const Root& root, const Segments& segments, bool create,
                Parent* parent, bool* missing = nullptr);

// Fires the hook first, so that the validation catches a hook that replaces a directory.
bool PreEffect(napi_env env, const Root& root, const Parent& parent, const Segments& segments);

// Whether the recorded chain is still valid. Does not throw.
bool ChainHolds(const Root& root, const Parent& parent);

// What an operation with the arguments (handle, segments) works on.
struct Target {
  const Root* root = nullptr;
  Segments segments;
  Parent parent;
};

// The first steps of such an operation: arguments, OpenParent, PreEffect.
bool OpenTarget(napi_env env, napi_callback_info info, bool create, Target* target);

// The first steps of an operation with two paths: OpenParent for the source without creation, then
// for the destination with creation, then PreEffect for the source and for the destination.
bool OpenBothParents(napi_env env, const Root& root, const Segments& from, const Segments& to,
                     Parent* source, Parent* destination);

// Flushes both directories in this order, also if they are the same. Returns false with errno set.
bool FlushBothParents(const Parent& first, const Parent& second);

}  // namespace tarvek
