#include "confine/body.h"

#include <cerrno>
#include <new>

#include "addon/error.h"
#include "confine/transfer.h"

namespace tarvek {

bool ReadBody(napi_env env, int fd, off_t size, Body* body) {
  if (size == 0) return true;
  const auto capacity = static_cast<size_t>(size);
  // calloc hands out fresh pages that are zero already, so a large body costs no pass of its own
  // before the read, and a file that claims more than there is memory fails here and not half-way.
  body->data.reset(static_cast<uint8_t*>(std::calloc(capacity, 1)));
  if (body->data == nullptr) throw std::bad_alloc();
  while (body->length < capacity) {
    const ssize_t count = ReadSome(fd, body->data.get() + body->length, capacity - body->length);
    if (count < 0) return RefuseErrno(env, errno);
    if (count == 0) break;
    body->length += static_cast<size_t>(count);
  }
  return true;
}

}  // namespace tarvek
