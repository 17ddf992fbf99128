// Finding the inodes in which a fileset and one of its snapshots differ.
#pragma once

#include <cstdint>

#include "btrfs/tree_root.h"
#include "diff/change_notes.h"
#include "diff/difference_set.h"

namespace kest {

// Commits the file system, then compares the subvolume with `snapshot_id`. `line`: the last transaction
// that both have in common. 0 and the difference, or -errno, with what was learned on the way about
// inodes that are in both. Time is in proportion to the changes, memory a few bytes a change.
int compareTrees(const TreeRoot &root, uint64_t snapshot_id, uint64_t line, DifferenceSet *difference,
                 ChangeNotes *changes);

}  // namespace kest
