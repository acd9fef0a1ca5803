// Directories: the checked step into one by name, and reading the names in it.
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

// How a walk differs from another: the hook point that it fires for each directory, and whether it
// makes the ones that are missing.
struct Walk {
  const char* point;
  bool create;
};

// Goes from `current` into each of `names` in turn, and appends the identity of each directory
// entered. A step opens the directory, fires the hook, and then looks at the name again, which must
// still lead to what was opened. At most two descriptors are open at a time.
//
// True with `current` at the last directory. With `missing` given, also true, and *missing set,
// when a directory is absent: `current` and `identities` then end at the deepest one that exists.
// False: it has thrown, and `current` is wherever it got to. Directories made on the way stay.
bool WalkDirectories(napi_env env, const Walk& walk, std::span<const std::string> names,
                     Descriptor* current, std::vector<Identity>* identities, bool* missing);

// Opens a directory whose names are to be read, and looks at the name again. False: it has thrown.
bool OpenListed(napi_env env, int dirFd, const std::string& name, Descriptor* directory);

struct StreamCloser {
  void operator()(DIR* stream) const { (void)::closedir(stream); }
};
using DirectoryStream = std::unique_ptr<DIR, StreamCloser>;

// A stream on a duplicate of `dirFd`, so that closing it leaves the caller's descriptor open. Null:
// errno says why, and the duplicate stays open for good. That is part of the interface and not an
// oversight to mend; it takes a process without memory to get there.
DirectoryStream OpenStream(int dirFd);

// The next name but "." and "..", valid until the stream is read or closed. Null at the end with
// errno 0, or after a failed read with its errno.
const char* NextName(DIR* stream);

// The names in a directory, ascending by their bytes. They lie in one block, each ended by a NUL,
// so that a directory of many names costs few allocations and each name can be handed to a system
// call.
struct Names {
  std::vector<char> block;
  std::vector<const char*> sorted;  // into `block`
};

// False: it has thrown.
bool ReadNames(napi_env env, int dirFd, Names* names);

}  // namespace tarvek
