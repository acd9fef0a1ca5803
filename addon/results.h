// Plain records out: the few JavaScript values that operations return. Statuses are not checked. A
// call that fails leaves its result null: returned from an operation that is `undefined`, and
// Node-API refuses to set it as an element or a property. An exception that the runtime raised
// itself reaches the caller as it is.
#pragma once

#include <node_api.h>

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

}  // namespace tarvek
