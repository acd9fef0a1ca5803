#include "confine/file_bytes.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdint>
#include <new>

#include "addon/error.h"
#include "confine/transfer.h"

namespace tarvek {

namespace {

// From this size on memory gets attention of its own.
constexpr size_t kLarge = size_t{4} << 20;
constexpr uintptr_t kHugePage = uintptr_t{2} << 20;

// Most of the time of a large read goes into being given its memory page by page. For less, what is
// left over at both ends outweighs the gain. A system without huge pages says no, and nothing but
// the time differs.
void PreferHugePages(uint8_t* data, size_t length) {
  if (length < kLarge) return;
  const uintptr_t gap = -reinterpret_cast<uintptr_t>(data) % kHugePage;
  (void)::madvise(data + gap, (length - gap) / kHugePage * kHugePage, MADV_HUGEPAGE);
}

// Node ends the process when it cannot have a Buffer's memory. Asked for here first, it is a
// failure like any other; only another thread that takes it in between can still bring that end
// about. A process that has not even a little memory left is at its end anyway.
void RequireMemory(size_t length) {
  if (length < kLarge) return;
  // volatile, or the compiler sees that the memory is not used and leaves the question out.
  void* volatile room = std::malloc(length);
  if (room == nullptr) throw std::bad_alloc();
  std::free(room);
}

}  // namespace

bool ReadFileBytes(napi_env env, int fd, off_t size, FileBytes* bytes) {
  if (size == 0) return true;
  const auto capacity = static_cast<size_t>(size);
  // calloc hands out fresh pages that are zero already, so many bytes cost no pass of their own,
  // and where the system refuses a file's claim to more than there is, it does so before the
  // reading.
  bytes->data.reset(static_cast<uint8_t*>(std::calloc(capacity, 1)));
  if (bytes->data == nullptr) throw std::bad_alloc();
  PreferHugePages(bytes->data.get(), capacity);
  while (bytes->length < capacity) {
    const ssize_t count = ReadSome(fd, bytes->data.get() + bytes->length, capacity - bytes->length);
    if (count < 0) return RefuseErrno(env, errno);
    if (count == 0) break;
    bytes->length += static_cast<size_t>(count);
  }
  return true;
}

napi_value BufferCopy(napi_env env, const FileBytes& bytes) {
  RequireMemory(bytes.length);
  napi_value result = nullptr;
  napi_create_buffer_copy(env, bytes.length, bytes.data.get(), nullptr, &result);
  return result;
}

}  // namespace tarvek
