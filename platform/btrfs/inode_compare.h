// Whether an inode is the same in a fileset and a snapshot.
#pragma once

#include <cstdint>
#include <vector>

#include "btrfs/extent_diff.h"
#include "btrfs/tree_items.h"
#include "btrfs/tree_root.h"
#include "kest.h"

namespace kest {

// What is not equal in two inodes that may be of one number or of two.
enum Unequal : unsigned {
  kParents = 1,        // the directories of the names, but not the names themselves
  kCloneRelation = 2,  // the clone attributes of a regular file, in any way
  kOther = 4,          // anything else that a restore could bring back
};

// Whether two inode items are equal in all that can be restored. The size of a directory does not
// count: it is that of its names and includes hidden entries.
bool sameItem(const InodeItem &now, const InodeItem &then);

// An inode but for its data.
struct InodeRecord {
  InodeItem item;
  std::vector<NameRef> names;           // sorted
  std::vector<XattrItem> xattrs;        // sorted; without
  std::vector<XattrItem> clone_xattrs;  // those that make a regular file a clone or clone parent
};

// Reads all but the item, which comes before, so that everything is read in the order of the tree. 0 or
// -errno.
int readNamesAndXattrs(const InodeOfTree &inode, InodeRecord *record);

// Compares everything that a restore could bring back: owner, mode, links and their names, modification
// time, flags, extended attributes, and size and data of all but directories, whose entries are not
// looked at. Both records have their items; the rest is read into them as far as is needed, all of it
// where the answer is not kOther. 0 and Unequal bits, or -errno.
int compareInodes(const InodeOfTree &active, InodeRecord *now, const InodeOfTree &snapshot,
                  InodeRecord *then, unsigned *unequal);

// What kest_ichange tells of an inode that is the same file in both trees. 0 or -errno.
int describeChange(TreeReader &active, TreeReader &snapshot, uint64_t ino, const InodeItem &now,
                   const InodeItem &then, kest_change_t *change);

// See kest_file_survives. 1, 0 or -errno.
int fileSurvives(const TreeRoot &active, const TreeRoot &snapshot, const char *path);

}  // namespace kest
