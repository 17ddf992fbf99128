// The attributes of an inode as the library's callers get them.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "btrfs/tree_items.h"
#include "filesystem/file_system.h"
#include "kest.h"

namespace kest {

// ia_rdev for a device number; only the low 12 bits of the minor fit.
uint32_t packDevice(unsigned major_no, unsigned minor_no);

// The KEST_HAS_* bit of kest_facts_t that an extended attribute of this name stands for (KEST_HAS_BLOB
// apart, which is not a matter of names alone).
uint32_t factOfXattr(std::string_view name);

// The attributes of inode `ino`, whose items are `item` and `xattrs`.
void fillAttributes(uint64_t ino, const InodeItem &item, const std::vector<XattrItem> &xattrs,
                    kest_iattr64_t *attr);
// The attributes of inode `ino` as `tree` has them; `item` is its inode item. 0 or -errno.
int readTreeAttributes(TreeReader &tree, uint64_t ino, const InodeItem &item, kest_iattr64_t *attr);

}  // namespace kest
