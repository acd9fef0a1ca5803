// The calls that move bytes, repeated if a signal interrupts them. Callers handle short counts.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace tarvek {

inline ssize_t ReadSome(int fd, void* data, size_t length) {
  ssize_t count = 0;
  do {
    count = ::read(fd, data, length);
  } while (count < 0 && errno == EINTR);
  return count;
}

inline ssize_t ReadSomeAt(int fd, void* data, size_t length, off_t offset) {
  ssize_t count = 0;
  do {
    count = ::pread(fd, data, length, offset);
  } while (count < 0 && errno == EINTR);
  return count;
}

inline ssize_t WriteSome(int fd, const void* data, size_t length) {
  ssize_t count = 0;
  do {
    count = ::write(fd, data, length);
  } while (count < 0 && errno == EINTR);
  return count;
}

}  // namespace tarvek
