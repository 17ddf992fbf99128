// The paths that lead to an inode, from its back references.
#pragma once

#include <cstdint>

#include "filesystem/file_system.h"

namespace kest {

// Finds every path of inode `ino` of subvolume `subvol_id` below the directory `dir_fd` (not O_PATH) of
// it, whatever their length and number. `checked`: passes over what the kernel's own look-up does not
// confirm: the tree still holds names that were removed since the last commit, and a mount may hide
// one. 1, 0 no such inode, -errno.
int findInodeNames(int dir_fd, uint64_t subvol_id, uint64_t ino, bool checked, InodeNames *found);

}  // namespace kest
