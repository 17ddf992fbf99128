// survival.h: what a restore must leave in place, beyond the equality of both trees.
#pragma once

#include <string>
#include <vector>

#include "support/tree_fingerprint.h"

namespace testsupport {

// Returns lines about objects that were made again or touched without need. An object in the snapshot
// and in the tree before the restore must keep its inode number at its snapshot path, except for
// hard-linked inodes none of whose snapshot names stayed in its directory, and files that became clone
// parents. An object that had not changed since the snapshot must keep its ctime, except for flagged
// objects, whose flags may have to be cleared for a moment. With timesToo false, ignores ctimes (after
// interrupted runs).
std::vector<std::string> remadeOrTouched(const TreePrint &snapshot, const TreePrint &before,
                                         const TreePrint &after, bool timesToo);

// Returns everything, except the root, that is another inode than before or was changed in any way.
std::vector<std::string> exchangedOrChanged(const TreePrint &before, const TreePrint &after);

// Returns when the clock of the file system's timestamps has advanced, so that later changes get
// another ctime than earlier ones. Otherwise both can fall into one tick of a few milliseconds.
void awaitClockTick();

}  // namespace testsupport
