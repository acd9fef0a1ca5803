// Root handles, and the reading of arguments that begin with one. A handle is a Node-API external
// around a Root. Externals are not tagged: one from another native module would be accepted as a
// Root.
#pragma once

#include <node_api.h>

#include <span>
#include <string>

#include "addon/arguments.h"
#include "confine/descriptor.h"
#include "confine/identity.h"

namespace tarvek {

// Owned by its JavaScript handle, and freed when the handle is collected. close() closes `fd`
// earlier.
struct Root {
  Descriptor fd;      // empty once closed; a hook can close it in the middle of an operation
  Identity identity;  // taken when the handle was made, never updated
};

// The root behind `value`. Null, without throwing, if `value` is closed or is not a handle.
const Root* GetRoot(napi_env env, napi_value value);

// Reads the arguments (handle, segments). The order of the checks is part of the interface: count,
// segments, handle. Returns false after throwing.
bool Args(napi_env env, napi_callback_info info, const Root** root, Segments* segments);

// Reads the arguments (handle, segments, segments). Every fault throws kOutOfRoot, also a closed
// handle. Returns false after throwing.
bool ArgsOfTwoPaths(napi_env env, napi_callback_info info, const Root** root, Segments* first,
                    Segments* second);

// Ends a walk of `names` from `startFd` that reached `directory`: validates the whole chain once
// more and returns a new handle for the directory. Returns null after throwing.
napi_value RootHandleAt(napi_env env, int startFd, std::span<const std::string> names,
                        std::span<const Identity> identities, const Descriptor& directory);

}  // namespace tarvek
