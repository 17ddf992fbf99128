// Taking a nested subvolume out of the tree that it is linked in.
#pragma once

#include <string>

#include "btrfs/mounts.h"

namespace kest {

// Moves the nested subvolume at `path`, with all its data, to .unlinked/<id>-<name> at the top of the
// file system, which need not be mounted: *where. No component of the path may be a symbolic link:
// users could have another subvolume unlinked. `device`: the name of the file system, for the error
// text. 0; -errno and errorText().
int unlinkSubvolume(const MountedFileSystem &fs, const std::string &device, const std::string &path,
                    std::string *where);

}  // namespace kest
