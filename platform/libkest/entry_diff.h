// Where a directory differs from its snapshot.
#pragma once

#include <cstdint>
#include <vector>

#include "btrfs/tree_items.h"
#include "libkest/kinship.h"
#include "libkest/open_inode.h"

namespace kest {

class TreeDiff;

// Entries that only one of two directories has; a name that means another object is in both.
struct EntryDifference {
  std::vector<DirEntryItem> active, snapshot;  // by name
};

// Compares directory `dir` of both trees by their items, hidden entries left out. `size`: of the
// directory in either tree, for an idea of how much there is to read. `line`: the last transaction that
// both trees have in common. 0 or -errno.
int diffDirectories(TreeReader &active, TreeReader &snapshot, uint64_t dir, uint64_t size,
                    uint64_t line, const HiddenEntries &hidden, EntryDifference *difference);

// Compares the directory with the snapshot's, drops what the live one contradicts, and fills
// file->changed. `diff` decides whether there is anything to compare, and tells reused inode numbers.
// 0 or -errno.
int listChangedEntries(OpenInode *file, const TreeDiff &diff, uint64_t snapshot_id);

}  // namespace kest
