// Converts JavaScript values. Strict: a value of another type is refused, never coerced.
//
// No function here throws. Each returns false, and the operation throws the error of its choice,
// because operations report bad arguments differently. A getter on a segment array can run any
// code. If it throws, its exception is pending, and it stays whatever the operation throws later.
#pragma once

#include <node_api.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tarvek {

// A path below a root: one name per element, the last one is the leaf. Never empty, and no element
// is empty, "." or "..", or contains a slash, a backslash or a NUL.
using Segments = std::vector<std::string>;

// A Buffer's memory, borrowed for one call.
struct Bytes {
  const uint8_t* data = nullptr;
  size_t length = 0;
};

// The arguments of a call. `count` is the number passed, which can exceed the capacity. Arguments
// that were not passed are `undefined`.
template <size_t kCapacity>
struct CallArguments {
  CallArguments(napi_env env, napi_callback_info info) {
    napi_get_cb_info(env, info, &count, values.data(), nullptr, nullptr);
  }

  size_t count = kCapacity;
  std::array<napi_value, kCapacity> values{};
};

bool IsType(napi_env env, napi_value value, napi_valuetype expected);

// As UTF-8 with embedded NULs. Leaves `out` alone if the value is not a string primitive.
bool GetString(napi_env env, napi_value value, std::string* out);

// Accepts what napi_is_buffer accepts: Buffers, typed arrays and DataViews.
bool GetBytes(napi_env env, napi_value value, Bytes* out);

// Whether `bytes` may still be read. A callback that ran since GetBytes may have detached,
// transferred or shrunk the Buffer, and its memory may be gone. Ask after the last callback and
// before the first use. A Buffer that has grown in place still holds the bytes.
bool StillHolds(napi_env env, napi_value value, const Bytes& bytes);

// Refuses everything but an array with at least one element.
bool GetElementCount(napi_env env, napi_value value, uint32_t* count);

// After a refusal `out` holds the elements before the bad one. Discard it.
bool GetSegments(napi_env env, napi_value value, Segments* out);

// The position of the leaf in its path, as hook points report it.
inline uint32_t LeafIndex(const Segments& segments) {
  return static_cast<uint32_t>(segments.size() - 1);
}

// Joins with "/".
std::string JoinSegments(std::span<const std::string> segments);

}  // namespace tarvek
