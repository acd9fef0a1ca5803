// JavaScript values in: strict conversions that refuse whatever is not exactly the expected type.
//
// None of these throws an error of its own: they answer false and the operation chooses the error,
// since the operations differ in that on purpose. A getter on a segment array may throw or run any
// code; its exception is then pending and outlives whatever the operation throws.
#pragma once

#include <node_api.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tarvek {

// A path below a root, one directory-entry name an element; the last one is the leaf. Once
// converted it is never empty and no element is empty, ".", ".." or holds a slash, a backslash or a
// NUL.
using Segments = std::vector<std::string>;

// A Buffer's own memory, borrowed for the duration of the call.
struct Bytes {
  const uint8_t* data = nullptr;
  size_t length = 0;
};

// The values that a call was made with. `count` is how many were passed, which may be more than
// there is room for; those that were not passed are `undefined`.
template <size_t kCapacity>
struct CallArguments {
  CallArguments(napi_env env, napi_callback_info info) {
    napi_get_cb_info(env, info, &count, values.data(), nullptr, nullptr);
  }

  size_t count = kCapacity;
  std::array<napi_value, kCapacity> values{};
};

bool IsType(napi_env env, napi_value value, napi_valuetype expected);

// UTF-8, embedded NULs kept. `out` is untouched when the value is not a string primitive.
bool GetString(napi_env env, napi_value value, std::string* out);

// Whatever napi_is_buffer accepts.
bool GetBytes(napi_env env, napi_value value, Bytes* out);

// Whether `bytes` may still be read. A callback that ran since GetBytes may have detached,
// transferred or shrunk the Buffer, and its memory may be gone. Ask after the last callback and
// before the first use. A Buffer that has grown in place still holds the bytes.
bool StillHolds(napi_env env, napi_value value, const Bytes& bytes);

// Of an array that holds at least one element. Anything else is refused.
bool GetElementCount(napi_env env, napi_value value, uint32_t* count);

// On refusal `out` holds the elements accepted so far; discard it.
bool GetSegments(napi_env env, napi_value value, Segments* out);

// The leaf's place in its path, as hook points tell it.
inline uint32_t LeafIndex(const Segments& segments) {
  return static_cast<uint32_t>(segments.size() - 1);
}

// The segments with "/" between them.
std::string JoinSegments(std::span<const std::string> segments);

}  // namespace tarvek
