// Compares a file with its snapshot by the extent maps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "btrfs/tree_search.h"
#include "filesystem/file_system.h"

namespace kest {

// Appends the ranges of inode `ino` in [start, end) in which the trees do not share data, at most
// `limit` of them. Both trees must be committed. 0 or -errno.
int diffExtents(TreeReader &active, TreeReader &snapshot, uint64_t ino, uint64_t start, uint64_t end,
                size_t limit, std::vector<FileRange> *ranges);

// An inode with a reader of its tree.
struct InodeOfTree {
  TreeReader &tree;
  uint64_t ino;
};

// Compares two files of `size` bytes: the same data, and holes at the same places. Compares extents,
// and reads the data only where they differ. With `shared_only`, data that could be shared but is not
// counts as different. 1, 0 or -errno.
int sameData(const InodeOfTree &active, const InodeOfTree &snapshot, uint64_t size, bool shared_only);

}  // namespace kest
