#include "confine/file_buffer.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "addon/error.h"
#include "confine/transfer.h"

namespace tarvek {

namespace {

// Up to this size, a Buffer that exists early costs the collector more than a copy costs later.
constexpr size_t kSmallBody = size_t{2} << 10;

// Node ends the process when it cannot get the memory of a Buffer. Below this size the question is
// not worth asking: the engine's own heap fails at that point as well.
constexpr size_t kAskFrom = size_t{64} << 10;

// The C library serves a request above 32 MiB with a mapping of its own, whatever came before.
constexpr size_t kOwnMappingFrom = (size_t{32} << 20) + 1;
constexpr uintptr_t kLargePage = uintptr_t{2} << 20;

// Asks for the memory first, so that its absence is an ordinary failure. Another thread can still
// take the memory in between.
void RequireMemory(size_t length) {
  if (length < kAskFrom) return;
  // volatile, or the compiler sees that the memory is not used and removes the question.
  void* volatile room = std::malloc(length);
  if (room == nullptr) throw std::bad_alloc();
  std::free(room);
}

// Most of the time of a large read goes into page faults, and large pages cause fewer. The advice
// ends with the mapping, and so with the Buffer. Memory from a heap that the C library keeps would
// stay marked for good and make the process larger. A kernel without large pages refuses.
void PreferLargePages(void* data, size_t length) {
  if (length < kOwnMappingFrom) return;
  auto* const bytes = static_cast<uint8_t*>(data);
  const uintptr_t gap = -reinterpret_cast<uintptr_t>(bytes) % kLargePage;
  (void)::madvise(bytes + gap, (length - gap) / kLargePage * kLargePage, MADV_HUGEPAGE);
}

// The runtime raises an exception of its own for a length that no Buffer can have. Callers are
// promised none but the module's.
bool RefuseBuffer(napi_env env) {
  napi_value exception = nullptr;
  napi_get_and_clear_last_exception(env, &exception);
  return Refuse(env, kStorageFailed);
}

bool CopyToBuffer(napi_env env, const uint8_t* bytes, size_t length, napi_value* buffer) {
  RequireMemory(length);
  return napi_create_buffer_copy(env, length, bytes, nullptr, buffer) == napi_ok ||
         RefuseBuffer(env);
}

bool ReadBytes(napi_env env, int fd, uint8_t* bytes, size_t capacity, size_t* length) {
  while (*length < capacity) {
    const ssize_t count = ReadSome(fd, bytes + *length, capacity - *length);
    if (count < 0) return RefuseErrno(env, errno);
    if (count == 0) break;
    *length += static_cast<size_t>(count);
  }
  return true;
}

bool ReadToBuffer(napi_env env, int fd, size_t capacity, napi_value* buffer, size_t* length) {
  RequireMemory(capacity);
  void* data = nullptr;
  if (napi_create_buffer(env, capacity, &data, buffer) != napi_ok) return RefuseBuffer(env);
  PreferLargePages(data, capacity);
  auto* const bytes = static_cast<uint8_t*>(data);
  if (!ReadBytes(env, fd, bytes, capacity, length)) return false;
  return *length == capacity || CopyToBuffer(env, bytes, *length, buffer);
}

}  // namespace

bool ReadFileBuffer(napi_env env, int fd, off_t size, napi_value* buffer) {
  size_t length = 0;
  return ReadToBuffer(env, fd, static_cast<size_t>(size), buffer, &length);
}

bool ReadFileBody(napi_env env, int fd, off_t size, FileBody* body) {
  const auto capacity = static_cast<size_t>(size);
  if (capacity > kSmallBody) return ReadToBuffer(env, fd, capacity, &body->buffer, &body->length);
  body->bytes = std::make_unique_for_overwrite<uint8_t[]>(capacity);
  return ReadBytes(env, fd, body->bytes.get(), capacity, &body->length);
}

napi_value BodyBuffer(napi_env env, const FileBody& body) {
  napi_value buffer = body.buffer;
  if (buffer == nullptr) {
    napi_create_buffer_copy(env, body.length, body.bytes.get(), nullptr, &buffer);
  }
  return buffer;
}

}  // namespace tarvek
