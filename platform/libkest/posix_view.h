// Path calls on a fileset with the file system's own error numbers; kest.h has their contracts.
#pragma once

#include <string>

#include "btrfs/unique_fd.h"
#include "kest.h"

namespace kest {

// Where a path call works: the directory, held open, and the last component within it, so that the
// question why a call was refused is asked of the very directory that refused it.
struct Place {
  UniqueFd dir;      // O_PATH
  std::string leaf;  // with the slashes that followed it
};

// Resolves all of `path`, which may be of any length, but its last component. The only place in which a
// path given to a path call is followed. 0 or -errno as the system call itself would have answered.
int locate(kest_fssnap_handle *active, const char *path, Place *place);

// Whether `leaf` is a nested subvolume. 1, 0 or -errno.
int isNestedSubvolume(const Place &place);

}  // namespace kest
