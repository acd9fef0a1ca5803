// Makes the JavaScript values that operations return. Statuses are not checked: a failed call
// leaves its result null. An operation that returns null returns `undefined` to JavaScript, and
// Node-API refuses a null element or property.
#pragma once

#include <node_api.h>

#include <string_view>

namespace tarvek {

// Frees the handles made while it lives. The collector visits every handle on each run, and it runs
// often while a large result is made. Use it where an element takes several handles. Where it
// takes one, opening and closing the scope costs more.
class HandleScope {
 public:
  explicit HandleScope(napi_env env) : env_(env) { napi_open_handle_scope(env_, &scope_); }
  HandleScope(const HandleScope&) = delete;
  HandleScope& operator=(const HandleScope&) = delete;
  ~HandleScope() { napi_close_handle_scope(env_, scope_); }

 private:
  napi_env env_;
  napi_handle_scope scope_ = nullptr;
};

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

// From UTF-8 bytes. The runtime replaces invalid sequences with U+FFFD.
inline napi_value String(napi_env env, std::string_view text) {
  napi_value result = nullptr;
  napi_create_string_utf8(env, text.data(), text.size(), &result);
  return result;
}

}  // namespace tarvek
