// Keeps the module loadable wherever Node itself is: on glibc 2.28 and the C++ library of its time.
//
// The linker binds each symbol to the newest version in the libraries of the build machine. A
// system whose libraries lack this version cannot load the module. Three symbols used here are
// newer than that floor. Each is defined below as a hidden function, so that every other file calls
// ::fstat and ::fstatat and uses std::vector in the ordinary way. The first two call older
// functions of glibc. scripts/check-symbols.js fails if another symbol rises above the floor.
//
// The first two are known for the processors that binaries are packed for, x86-64 and arm64. On any
// other processor the module needs the libraries that it was built with.
//
// Sanitizer builds leave this file out: they are never shipped, and their runtime must see the
// calls.

#include <sys/stat.h>

#include <new>

// Until 2.33 glibc exported only these in place of fstat and fstatat, and it has kept them. Its
// headers no longer name them, nor the number of the layout of `struct stat` that they take first.
#if defined(__GLIBC__) && defined(__LP64__)
#if __GLIBC_PREREQ(2, 33)
#if defined(__x86_64__)
#define TARVEK_OLD_FSTAT "__fxstat@GLIBC_2.2.5"
#define TARVEK_OLD_FSTATAT "__fxstatat@GLIBC_2.4"
#define TARVEK_STAT_LAYOUT 1
#elif defined(__aarch64__)
#define TARVEK_OLD_FSTAT "__fxstat@GLIBC_2.17"
#define TARVEK_OLD_FSTATAT "__fxstatat@GLIBC_2.17"
#define TARVEK_STAT_LAYOUT 0
#endif
#endif
#endif

#if defined(TARVEK_STAT_LAYOUT)

extern "C" {

int OldFstat(int layout, int fd, struct stat* buf) noexcept;
int OldFstatat(int layout, int fd, const char* file, struct stat* buf, int flag) noexcept;
asm(".symver OldFstat, " TARVEK_OLD_FSTAT);
asm(".symver OldFstatat, " TARVEK_OLD_FSTATAT);

__attribute__((visibility("hidden"))) int fstat(int fd, struct stat* buf) noexcept {
  return OldFstat(TARVEK_STAT_LAYOUT, fd, buf);
}

__attribute__((visibility("hidden"))) int fstatat(int fd, const char* file, struct stat* buf,
                                                  int flag) noexcept {
  return OldFstatat(TARVEK_STAT_LAYOUT, fd, file, buf, flag);
}

}  // extern "C"

#endif

#if defined(__GLIBCXX__)

namespace std {

// Called by new[] and by the standard containers for a length that no memory can hold. The library
// exports it since GCC 11 only (GLIBCXX_3.4.29). No list in this module comes near that length.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
__attribute__((visibility("hidden"))) void __throw_bad_array_new_length() {
  throw bad_array_new_length();
}

}  // namespace std

#endif
