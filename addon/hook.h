// The test hook: one JavaScript callback that a host application's tests install, called at named
// moments inside the operations so that they can make a hostile change exactly there.
//
// The callback runs in the middle of an operation and may do anything: change the disk, close the
// handle in use, call the module again, install another hook. Whatever an operation
// found before a hook point, a Buffer's memory included, it looks at again before it relies on it.
#pragma once

#include <node_api.h>

#include <cstdint>
#include <string_view>

namespace tarvek {

// Calls the hook with { point, segment, index }. True to continue; false when the callback threw:
// its exception is pending, and the operation lets go of what it holds and returns. `result`, where
// asked for, receives the callback's return value and is left alone when no hook is installed.
bool Hook(napi_env env, const char* point, std::string_view segment, uint32_t index,
          napi_value* result = nullptr);

}  // namespace tarvek
