// The attributes of an inode in the form of the C interface.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "btrfs/tree_items.h"
#include "filesystem/file_system.h"
#include "kest.h"

namespace kest {

// Encodes a device number as ia_rdev, which has room for only the low 12 bits of the minor number.
uint32_t packDevice(unsigned major_no, unsigned minor_no);

// Returns the KEST_HAS_* bit that an extended attribute of this name sets in kest_facts_t.
// KEST_HAS_BLOB is not among them, because it does not depend on names alone.
uint32_t factOfXattr(std::string_view name);

// Fills the attributes of inode `ino` from its items `item` and `xattrs`.
void fillAttributes(uint64_t ino, const InodeItem &item, const std::vector<XattrItem> &xattrs,
                    kest_iattr64_t *attr);
// Reads the attributes of inode `ino` from `tree`; `item` is its inode item. 0 or -errno.
int readTreeAttributes(TreeReader &tree, uint64_t ino, const InodeItem &item, kest_iattr64_t *attr);

}  // namespace kest
