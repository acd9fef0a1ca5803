// exchangeForTest: exchanges two entries of the root directory, so that tests can stage races.
// Makes no identity checks, fires no hook and flushes nothing.

#include <linux/fs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "addon/error.h"
#include "addon/operations.h"
#include "addon/results.h"
#include "addon/root.h"

namespace tarvek {

namespace {

// Checks less than a segment: a backslash passes, and so does a NUL, where the system cuts the
// name. Tests use that to stage names that the other operations refuse.
bool GetEntryName(napi_env env, napi_value value, std::string* out) {
  return GetString(env, value, out) && !out->empty() && *out != "." && *out != ".." &&
         out->find('/') == std::string::npos;
}

}  // namespace

napi_value ExchangeForTest(napi_env env, napi_callback_info info) {
  const CallArguments<3> call(env, info);
  const Root* root = call.count == 3 ? GetRoot(env, call.values[0]) : nullptr;
  std::string a;
  std::string b;
  if (root == nullptr || !GetEntryName(env, call.values[1], &a) ||
      !GetEntryName(env, call.values[2], &b)) {
    return Throw(env, kOutOfRoot);
  }
  const int fd = root->fd.Get();
  // Not every libc has a wrapper.
  if (::syscall(SYS_renameat2, fd, a.c_str(), fd, b.c_str(),
                static_cast<unsigned int>(RENAME_EXCHANGE)) != 0) {
    return FailErrno(env, errno);
  }
  return Undefined(env);
}

}  // namespace tarvek
