// Whether an inode is the same in a fileset and a snapshot.
#pragma once

#include <cstdint>

#include "btrfs/tree_items.h"
#include "btrfs/tree_root.h"
#include "kest.h"

namespace kest {

// 1 when everything that a restore could bring back is equal in both trees: owner, mode, links and
// their names, modification time, flags, extended attributes, and size and data of all but directories,
// whose entries are not looked at. 0, or -errno.
int sameProperties(TreeReader &active, TreeReader &snapshot, uint64_t ino, const InodeItem &now,
                   const InodeItem &then);

// What kest_ichange tells of an inode that is the same file in both trees. 0 or -errno.
int describeChange(TreeReader &active, TreeReader &snapshot, uint64_t ino, const InodeItem &now,
                   const InodeItem &then, kest_change_t *change);

// See kest_file_survives. 1, 0 or -errno.
int fileSurvives(const TreeRoot &active, const TreeRoot &snapshot, const char *path);

}  // namespace kest
