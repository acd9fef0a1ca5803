// The way from a root to the directory that holds a leaf. Every operation on a segment array but
// openRelative goes through it in the same order:
//
//   OpenParent   walk to the leaf's directory, check every step and record it
//   PreEffect    fire "pre-effect", then prove the recorded chain once more
//   ... look at the leaf by its name in parent.fd, and act
//
// When one of these answers false it has thrown, and the operation only returns.
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

// One call's walk. `segments` and `identities` run in parallel and leave out the root itself.
struct Parent {
  Descriptor fd;                          // the directory reached
  std::span<const std::string> segments;  // the names walked; borrowed from the operation's array
  std::vector<Identity> identities;
};

// With `create`, directories that are missing are made (mode 0700 before the umask, each flushed
// into its parent) and stay, whatever fails later. With `missing`, an absent directory is reported
// there instead of thrown.
bool OpenParent(napi_env env, const Root& root, const Segments& segments, bool create,
                Parent* parent, bool* missing = nullptr);

// In this order, so that a hook which replaces a directory is caught.
bool PreEffect(napi_env env, const Root& root, const Parent& parent, const Segments& segments);

// Whether the recorded chain still holds; throws nothing.
bool ChainHolds(const Root& root, const Parent& parent);

// What an operation of the form (handle, segments) works on, once it has arrived there.
struct Target {
  const Root* root = nullptr;
  Segments segments;
  Parent parent;
};

// The beginning of such an operation: its arguments, the walk, and the pre-effect.
bool OpenTarget(napi_env env, napi_callback_info info, bool create, Target* target);

// Both walks of an operation that takes an entry from one place to another, the source's without
// creation and the destination's with, then both pre-effects, the source's first.
bool OpenBothParents(napi_env env, const Root& root, const Segments& from, const Segments& to,
                     Parent* source, Parent* destination);

// Flushes both directories, in this order and also when they are one. Returns false with errno set.
bool FlushBothParents(const Parent& first, const Parent& second);

}  // namespace tarvek
