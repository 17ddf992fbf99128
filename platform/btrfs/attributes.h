// The attributes of an inode as the library's callers get them.
#pragma once

#include <cstdint>
#include <vector>

#include "btrfs/tree_items.h"
#include "kest.h"

namespace kest {

// ia_rdev for a device number; only the low 12 bits of the minor fit.
uint32_t packDevice(unsigned major_no, unsigned minor_no);

// The attributes of inode `ino` as `tree` has them; `item` is its inode item. 0 or -errno.
int readTreeAttributes(TreeReader &tree, uint64_t ino, const InodeItem &item, kest_iattr64_t *attr);

}  // namespace kest
