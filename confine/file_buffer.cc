#include "confine/file_buffer.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "addon/error.h"
#include "confine/transfer.h"

namespace tarvek {

namespace {

// Up to this size, a copy at the end costs less than a Buffer made early, because the collector
// visits every early Buffer again and again.
constexpr size_t kSmallBody = size_t{2} << 10;

// From this size on glibc can serve a request with a mapping, and above the second size it always
// does. Then the block begins 16 bytes after the start of a page.
constexpr size_t kMappingFrom = size_t{128} << 10;
constexpr size_t kMappingAbove = size_t{32} << 20;
constexpr uintptr_t kPage = 4096;
constexpr uintptr_t kMappingHeader = 16;
constexpr uintptr_t kLargePage = uintptr_t{2} << 20;

bool CanMap(size_t length) {
  void* const room =
      ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return room != MAP_FAILED && ::munmap(room, length) == 0;
}

bool CanAllocate(size_t length) {
  // volatile, or the compiler sees that the memory is not used and removes both calls.
  void* volatile room = std::malloc(length);
  std::free(room);
  return room != nullptr;
}

// Node ends the process when it cannot get the memory of a Buffer. A trial allocation turns that
// into an ordinary failure. Another thread can still take the memory in between. For large sizes
// the trial is a mapping: a malloc would make glibc serve the Buffer from a heap that it keeps, and
// the process would stay as large after the Buffer is gone.
void RequireMemory(size_t length) {
  const bool available = length < kMappingFrom ? CanAllocate(length) : CanMap(length);
  if (!available) throw std::bad_alloc();
}

bool HasOwnMapping(const void* data, size_t length) {
  return length > kMappingAbove && reinterpret_cast<uintptr_t>(data) % kPage == kMappingHeader;
}

// Page faults take most of the time of a large read, and large pages cause fewer. The advice stays
// with the mapping, so it is given only where the mapping goes with the Buffer: other allocators
// keep theirs, and the process would hold more memory for good. A kernel without large pages
// refuses, which does no harm.
void PreferLargePages(void* data, size_t length) {
  if (!HasOwnMapping(data, length)) return;
  auto* const bytes = static_cast<uint8_t*>(data);
  const uintptr_t gap = -reinterpret_cast<uintptr_t>(bytes) % kLargePage;
  (void)::madvise(bytes + gap, (length - gap) / kLargePage * kLargePage, MADV_HUGEPAGE);
}

// The runtime throws an error of its own for a length that no Buffer can have. It is replaced,
// because callers are promised only the module's errors.
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
  if (body.buffer != nullptr) return body.buffer;
  napi_value buffer = nullptr;
  RequireMemory(body.length);
  napi_create_buffer_copy(env, body.length, body.bytes.get(), nullptr, &buffer);
  return buffer;
}

}  // namespace tarvek
