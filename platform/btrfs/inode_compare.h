// Compares an inode in a fileset and a snapshot.
#pragma once

#include <cstdint>
#include <vector>

#include "btrfs/extent_diff.h"
#include "btrfs/tree_items.h"
#include "btrfs/tree_root.h"
#include "kest.h"

namespace kest {

// How two inodes, of one number or of two, are unequal.
enum Unequal : unsigned {
  kParents = 1,        // other directories, but the same names in them
  kCloneRelation = 2,  // any difference in the clone attributes of a regular file
  kOther = 4,          // anything else that a restore could bring back
};

// Returns true if two inode items are equal in everything that can be restored. Ignores the size of a
// directory, which depends on its names and includes hidden entries.
bool sameItem(const InodeItem &now, const InodeItem &then);

// An inode without its data.
struct InodeRecord {
  InodeItem item;
  std::vector<NameRef> names;           // sorted
  std::vector<XattrItem> xattrs;        // sorted; without clone_xattrs
  std::vector<XattrItem> clone_xattrs;  // those of a clone or clone parent
};

// Reads everything but the item, which the caller has read before, so that reads follow the order of
// the tree. 0 or -errno.
int readNamesAndXattrs(const InodeOfTree &inode, InodeRecord *record);

// Compares everything that a restore could bring back: owner, mode, link count and names, modification
// time, flags, extended attributes, and, except for directories, size and data. Does not look at the
// entries of directories. Both records contain their items; reads the rest into them as far as needed,
// and completely if the answer is not kOther. 0 and the Unequal bits, or -errno.
int compareInodes(const InodeOfTree &active, InodeRecord *now, const InodeOfTree &snapshot,
                  InodeRecord *then, unsigned *unequal);

// Fills `change` as kest_ichange does, for an inode that is the same file in both trees. 0 or -errno.
int describeChange(TreeReader &active, TreeReader &snapshot, uint64_t ino, const InodeItem &now,
                   const InodeItem &then, kest_change_t *change);

// See kest_file_survives. 1, 0 or -errno.
int fileSurvives(const TreeRoot &active, const TreeRoot &snapshot, const char *path);

}  // namespace kest
