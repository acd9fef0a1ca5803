#include "addon/error.h"

#include <cerrno>

namespace tarvek {

napi_value Throw(napi_env env, const Failure& failure) {
  napi_value message = nullptr;
  napi_value error = nullptr;
  napi_value code = nullptr;
  // No status is checked: with an exception pending the last two calls are refused, and that is how
  // a callback's own exception survives.
  napi_create_string_utf8(env, failure.message, NAPI_AUTO_LENGTH, &message);
  napi_create_error(env, nullptr, message, &error);
  napi_create_string_utf8(env, failure.code, NAPI_AUTO_LENGTH, &code);
  napi_set_named_property(env, error, "code", code);
  napi_throw(env, error);
  return nullptr;
}

napi_value FailErrno(napi_env env, int errnum) {
  switch (errnum) {
    case ENOTDIR:
    case ELOOP:
      return Throw(env, kOutOfRoot);
    case ENOENT:
      return Throw(env, kNotFound);
    default:
      return Throw(env, kStorageFailed);
  }
}

}  // namespace tarvek
