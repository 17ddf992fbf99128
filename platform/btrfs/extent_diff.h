// Where a file differs from its snapshot, by extent maps alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "btrfs/tree_search.h"
#include "filesystem/file_system.h"

namespace kest {

// Appends the ranges of inode `ino` in [start, end) in which the two trees do not share their data;
// stops after `limit` of them. Both trees must be committed. 0 or -errno.
int diffExtents(TreeReader &active, TreeReader &snapshot, uint64_t ino, uint64_t start, uint64_t end,
                size_t limit, std::vector<FileRange> *ranges);

// An inode, and a reader of its tree.
struct InodeOfTree {
  TreeReader &tree;
  uint64_t ino;
};

// Whether two files of `size` bytes have the same data, and holes at the same places: by their extents,
// and where these differ by reading; but with `shared_only`, data that could be shared are not the same
// unless they are. 1, 0 or -errno.
int sameData(const InodeOfTree &active, const InodeOfTree &snapshot, uint64_t size, bool shared_only);

}  // namespace kest
