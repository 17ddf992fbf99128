// Finds the paths of an inode from its back references.
#pragma once

#include <cstdint>

#include "filesystem/file_system.h"

namespace kest {

// Finds every path of inode `ino` of subvolume `subvol_id` below its directory `dir_fd` (not O_PATH),
// of any length and number. With `checked` drops paths that the kernel does not confirm: the tree still
// contains names that were removed since the last commit, and a mount can hide a name. 1; 0: no such
// inode; or -errno.
int findInodeNames(int dir_fd, uint64_t subvol_id, uint64_t ino, bool checked, InodeNames *found);

}  // namespace kest
