// Root handles: what anchors every operation. A handle is a Node-API external around a Root; the
// module does not tag its externals, so only its own handles may be passed in.
#pragma once

#include <node_api.h>

#include <span>
#include <string>

#include "addon/arguments.h"
#include "confine/descriptor.h"
#include "confine/identity.h"

namespace tarvek {

// Owned by its handle: freed when the handle is collected, closed earlier by close().
struct Root {
  Descriptor fd;      // empty once closed; a hook can close it in the middle of an operation
  Identity identity;  // as it was when the handle was made; never refreshed
};

// The open root behind `value`; null, without throwing, when it is closed or not a handle.
const Root* GetRoot(napi_env env, napi_value value);

// The arguments (handle, segments) of the operations that take just these two. The order in which
// faults are found is part of the interface: count, segments, handle. False: it has thrown.
bool Args(napi_env env, napi_callback_info info, const Root** root, Segments* segments);

// The arguments (handle, segments, segments) of those that take two paths. Every fault, a closed
// handle included, is a refusal of the path. False: it has thrown.
bool ArgsOfTwoPaths(napi_env env, napi_callback_info info, const Root** root, Segments* first,
                    Segments* second);

// Ends a walk of `names` from `startFd` that arrived at `directory`: proves the whole chain once
// more and returns a new handle on the directory. Null: it has thrown.
napi_value RootHandleAt(napi_env env, int startFd, std::span<const std::string> names,
                        std::span<const Identity> identities, const Descriptor& directory);

}  // namespace tarvek
