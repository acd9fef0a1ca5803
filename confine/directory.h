// Directories: the checked step into one by name, and the reading of its names.
#pragma once

#include <dirent.h>
#include <node_api.h>

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "confine/descriptor.h"
#include "confine/identity.h"

namespace tarvek {

// How walks differ: the hook point fired for each directory, and whether missing directories are
// created.
struct Walk {
  const char* point;
  bool create;
};

// Walks from `current` into each of `names` in turn, and appends the identity of each directory. A
// step opens the directory, fires the hook, and then stats the name again, which must still lead to
// the open directory. At most two descriptors are open at a time.
//
// Returns true with `current` at the last directory. If a directory is missing and `missing` is
// given, sets *missing and returns true as well: `current` and `identities` then end at the deepest
// directory that exists. Returns false after throwing, with `current` at any directory on the way.
// Created directories stay.
bool WalkDirectories(napi_env env, const Walk& walk, std::span<const std::string> names,
                     Descriptor* current, std::vector<Identity>* identities, bool* missing);

// Opens a directory in order to read its names, and checks that the name still leads to it. Returns
// false after throwing.
bool OpenListed(napi_env env, int dirFd, const std::string& name, Descriptor* directory);

struct StreamCloser {
  void operator()(DIR* stream) const { (void)::closedir(stream); }
};
using DirectoryStream = std::unique_ptr<DIR, StreamCloser>;

// Opens a stream on a duplicate of `dirFd`, so that closing the stream leaves the caller's
// descriptor open. Returns null with errno set. Required: if fdopendir fails, the duplicate stays
// open for good. It fails if memory is missing, or if its own fstat of the duplicate fails.
DirectoryStream OpenStream(int dirFd);

// The next name except "." and "..", valid until the stream is read again or closed. Null with
// errno 0 at the end, or with the errno of a failed read.
const char* NextName(DIR* stream);

// The names in a directory, ascending by their bytes. One block holds them, each ended by a NUL: a
// large directory takes few allocations, and a name can be passed to a system call as it is.
struct Names {
  std::vector<char> block;
  std::vector<const char*> sorted;  // into `block`
};

// Returns false after throwing.
bool ReadNames(napi_env env, int dirFd, Names* names);

}  // namespace tarvek
