// Plain records out: the few JavaScript values that operations return. Statuses are not checked. A
// call that fails leaves its result null: returned from an operation that is `undefined`, and
// Node-API refuses to set it as an element or a property. An exception that the runtime raised
// itself reaches the caller as it is.
#pragma once

#include <node_api.h>

#include <string_view>

namespace tarvek {

// Lets go of the handles made in it. The collector visits every handle there is each time it runs,
// which it does often while a large result is made. Worth it where an element takes several
// handles; where it takes one, opening and closing cost more.
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

// From bytes taken for UTF-8; the runtime replaces what is not.
inline napi_value String(napi_env env, std::string_view text) {
  napi_value result = nullptr;
  napi_create_string_utf8(env, text.data(), text.size(), &result);
  return result;
}

}  // namespace tarvek
