// Where a file differs from its snapshot, by extent maps alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "btrfs/tree_search.h"

namespace kest {

struct ExtentRange {
  uint64_t start = 0, length = 0;  // bytes
  bool hole = false;               // the snapshot's file has a hole there
};

// Appends the ranges of inode `ino` in [start, end) in which the two trees do not share their data;
// stops after `limit` of them. Both trees must be committed. 0 or -errno.
int diffExtents(TreeReader &active, TreeReader &snapshot, uint64_t ino, uint64_t start, uint64_t end,
                size_t limit, std::vector<ExtentRange> *ranges);

}  // namespace kest
