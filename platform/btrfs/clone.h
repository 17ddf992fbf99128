// Makes a file a clone of another one.
#pragma once

#include <string>

#include "btrfs/inode.h"

namespace kest {

// Creates `name` in the directory `dir_fd` (O_PATH suffices) as a clone of the clone parent `parent`;
// see kest_clone_copy. 0 or -errno.
int makeClone(int dir_fd, const std::string &name, BtrfsInode &parent);

}  // namespace kest
