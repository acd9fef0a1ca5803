#include "addon/arguments.h"

#include <algorithm>
#include <utility>

namespace tarvek {

namespace {

// File names fit. Longer strings take two calls.
constexpr size_t kShortStringBytes = 256;

// Node-API cuts a string that does not fit after a whole character, so a cut string can be shorter
// than the room by up to this many bytes.
constexpr size_t kLongestCharacterBytes = 4;

// The length of a segment array can be far larger than its content: up to 2^32 - 1.
constexpr uint32_t kUsualDepth = 8;

void GetLongString(napi_env env, napi_value value, std::string* out) {
  size_t length = 0;
  napi_get_value_string_utf8(env, value, nullptr, 0, &length);
  out->resize(length);
  napi_get_value_string_utf8(env, value, out->data(), length + 1, &length);
  out->resize(length);
}

bool IsForbidden(char byte) { return byte == '/' || byte == '\\' || byte == '\0'; }

bool IsSegment(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         std::none_of(name.begin(), name.end(), IsForbidden);
}

}  // namespace

// The calls below fail for a null value, which a getter that throws leaves. Their statuses are
// checked so that an output that was never written is not used.

bool IsType(napi_env env, napi_value value, napi_valuetype expected) {
  napi_valuetype type = napi_undefined;
  return napi_typeof(env, value, &type) == napi_ok && type == expected;
}

bool GetString(napi_env env, napi_value value, std::string* out) {
  if (!IsType(env, value, napi_string)) return false;
  std::array<char, kShortStringBytes> room;
  size_t length = 0;
  napi_get_value_string_utf8(env, value, room.data(), room.size(), &length);
  if (length + kLongestCharacterBytes < room.size()) {
    out->assign(room.data(), length);
  } else {
    GetLongString(env, value, out);
  }
  return true;
}

bool GetBytes(napi_env env, napi_value value, Bytes* out) {
  bool isBuffer = false;
  if (napi_is_buffer(env, value, &isBuffer) != napi_ok || !isBuffer) return false;
  void* data = nullptr;
  size_t length = 0;
  if (napi_get_buffer_info(env, value, &data, &length) != napi_ok) return false;
  *out = {static_cast<const uint8_t*>(data), length};
  return true;
}

bool StillHolds(napi_env env, napi_value value, const Bytes& bytes) {
  Bytes now;
  return GetBytes(env, value, &now) && now.data == bytes.data && now.length >= bytes.length;
}

bool GetElementCount(napi_env env, napi_value value, uint32_t* count) {
  bool isArray = false;
  if (napi_is_array(env, value, &isArray) != napi_ok || !isArray) return false;
  return napi_get_array_length(env, value, count) == napi_ok && *count > 0;
}

bool GetSegments(napi_env env, napi_value value, Segments* out) {
  uint32_t count = 0;
  if (!GetElementCount(env, value, &count)) return false;
  out->reserve(std::min(count, kUsualDepth));
  for (uint32_t index = 0; index < count; ++index) {
    napi_value element = nullptr;
    napi_get_element(env, value, index, &element);
    std::string name;
    if (!GetString(env, element, &name) || !IsSegment(name)) return false;
    out->push_back(std::move(name));
  }
  return true;
}

std::string JoinSegments(std::span<const std::string> segments) {
  std::string joined;
  for (const std::string& segment : segments) {
    if (!joined.empty()) joined += '/';
    joined += segment;
  }
  return joined;
}

}  // namespace tarvek
