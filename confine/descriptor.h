// An owned file descriptor, how a directory is opened by name, and the modes of new entries.
#pragma once

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <utility>

namespace tarvek {

// Before the umask.
inline constexpr mode_t kNewFileMode = 0600;
inline constexpr mode_t kNewDirectoryMode = 0700;

// -1 is empty.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    Close();
    fd_ = other.Release();
    return *this;
  }
  ~Descriptor() { Close(); }

  [[nodiscard]] bool IsOpen() const { return fd_ >= 0; }
  [[nodiscard]] int Get() const { return fd_; }
  int Release() { return std::exchange(fd_, -1); }

  // Ignores errors of close: what must be durable was flushed before, and Linux releases the
  // descriptor even if it reports an error.
  void Close() {
    if (IsOpen()) (void)::close(Release());
  }

 private:
  int fd_ = -1;
};

// Opens a directory by a single name, never through a symlink. Returns an empty descriptor with
// errno set.
inline Descriptor OpenDirectoryAt(int dirFd, const char* name) {
  return Descriptor(::openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

}  // namespace tarvek
