// The test hook: one JavaScript callback that the tests of a host application install. Operations
// call it at named points, so that a test can make a hostile change at an exact moment.
//
// The callback runs in the middle of an operation and may do anything: change the disk, close the
// handle in use, call the module again, install another hook. So an operation reads the
// handle's descriptor anew after each hook point, and checks a Buffer's memory again after the last
// one.
#pragma once

#include <node_api.h>

#include <cstdint>
#include <string_view>

namespace tarvek {

// Calls the hook with { point, segment, index }. Returns true to continue. Returns false if the
// callback threw: its exception is pending, and the operation releases what it holds and returns.
// `result`, if given, receives the callback's return value. It is left alone without a hook.
bool Hook(napi_env env, const char* point, std::string_view segment, uint32_t index,
          napi_value* result = nullptr);

}  // namespace tarvek
