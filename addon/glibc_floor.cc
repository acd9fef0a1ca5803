// Keeps the module loadable wherever Node itself is: on glibc 2.28 and the C++ library of its time.
//
// A symbol is bound in the newest version that the building machine's libraries offer, and a loader
// that lacks this version refuses the module. Three symbols used here are newer than that floor.
// Each is defined below, hidden, by what has been there since long before, so that every other file
// calls ::fstat and ::fstatat and uses std::vector in the ordinary way. scripts/check-symbols.js
// fails when another symbol rises above the floor.
//
// Sanitizer builds leave this file out: they are never shipped, and their runtime must see the
// calls.

#include <sys/stat.h>

#include <new>

#if defined(__GLIBC__)
#if __GLIBC_PREREQ(2, 33)

extern "C" {

// glibc exported only these until 2.33 and has kept them. Its headers no longer name them, nor the
// number of the x86-64 layout of `struct stat` that they take first.
int OldFstat(int layout, int fd, struct stat* buf) noexcept;
int OldFstatat(int layout, int fd, const char* file, struct stat* buf, int flag) noexcept;
asm(".symver OldFstat, __fxstat@GLIBC_2.2.5");
asm(".symver OldFstatat, __fxstatat@GLIBC_2.4");

constexpr int kStatLayout = 1;

__attribute__((visibility("hidden"))) int fstat(int fd, struct stat* buf) noexcept {
  return OldFstat(kStatLayout, fd, buf);
}

__attribute__((visibility("hidden"))) int fstatat(int fd, const char* file, struct stat* buf,
                                                  int flag) noexcept {
  return OldFstatat(kStatLayout, fd, file, buf, flag);
}

}  // extern "C"

#endif
#endif

#if defined(__GLIBCXX__)

namespace std {

// Called by new[] and by the standard containers for a length that no memory can hold. The library
// exports it since GCC 11 only (GLIBCXX_3.4.29). No list that one
// call builds comes near that limit.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
__attribute__((visibility("hidden"))) void __throw_bad_array_new_length() {
  throw bad_array_new_length();
}

}  // namespace std

#endif
