// Unlinks a nested subvolume from the tree in which it is linked.
#pragma once

#include <string>

#include "btrfs/mounts.h"

namespace kest {

// Moves the nested subvolume at `path`, with all its data, to .unlinked/<id>-<name> at the top of the
// file system, which need not be mounted; *where receives that path. Refuses a path with a symbolic
// link, because users could otherwise have another subvolume unlinked. `device` names the file system
// in the error text. 0, or -errno and errorText().
int unlinkSubvolume(const MountedFileSystem &fs, const std::string &device, const std::string &path,
                    std::string *where);

}  // namespace kest
