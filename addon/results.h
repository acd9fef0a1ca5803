// Plain records out: the few JavaScript values that operations return. Statuses are not checked; a
// call that fails leaves its result null, which Node-API takes for `undefined`, and an exception
// that the runtime raised itself (a Buffer larger than it allows) reaches the caller as it is.
#pragma once

#include <node_api.h>

#include <cstddef>
#include <string_view>

namespace tarvek {

inline napi_value Undefined(napi_env env) {
  napi_value result = nullptr;
  napi_get_undefined(env, &result);
  return result;
}

inline napi_value Boolean(napi_env env, bool value) {
  napi_value result = nullptr;
  napi_get_boolean(env, value, &result);
  return result;
}

// From bytes taken for UTF-8; the runtime replaces what is not.
inline napi_value String(napi_env env, std::string_view text) {
  napi_value result = nullptr;
  napi_create_string_utf8(env, text.data(), text.size(), &result);
  return result;
}

inline napi_value BufferCopy(napi_env env, const void* data, size_t length) {
  napi_value result = nullptr;
  napi_create_buffer_copy(env, length, data, nullptr, &result);
  return result;
}

}  // namespace tarvek
