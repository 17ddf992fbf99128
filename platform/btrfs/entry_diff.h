// Where a directory differs from its snapshot, by the items of both trees.
#pragma once

#include <cstdint>

#include "btrfs/relatives.h"
#include "btrfs/tree_search.h"
#include "diff/entry_pairs.h"

namespace kest {

// Compares directory `dir` of both trees, hidden entries left out. `size`: of the directory in either
// tree, for an idea of how much there is to read. `line`: the last transaction that both trees have in
// common. 0 or -errno.
int diffDirectories(TreeReader &active, TreeReader &snapshot, uint64_t dir, uint64_t size,
                    uint64_t line, const HiddenEntries &hidden, EntryDifference *difference);

}  // namespace kest
