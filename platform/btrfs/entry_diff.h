// Compares a directory in both trees by their items.
#pragma once

#include <cstdint>

#include "btrfs/relatives.h"
#include "btrfs/tree_search.h"
#include "diff/entry_pairs.h"

namespace kest {

// Finds the entries in which directory `dir` differs between the trees, without hidden entries. `size`
// is that of the directory in either tree and serves as an estimate of how much there is to read.
// `line` is the last transaction that both trees have in common. 0 or -errno.
int diffDirectories(TreeReader &active, TreeReader &snapshot, uint64_t dir, uint64_t size,
                    uint64_t line, const HiddenEntries &hidden, EntryDifference *difference);

}  // namespace kest
