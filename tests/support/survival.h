// survival.h: what a restore must leave in place, beyond equality of the two trees.
#pragma once

#include <string>
#include <vector>

#include "support/tree_fingerprint.h"

namespace testsupport {

// Lines about objects that were made anew or touched without need. An object that exists in the
// snapshot and in the tree before the restore must keep its inode number at its snapshot path; excepted
// are hard-linked inodes none of whose snapshot names stayed in its directory, and files that became
// clone parents. What had not changed since the snapshot must not be touched: it keeps its change time.
// excepted are flagged objects, whose flags may have to be cleared for a while. timesToo false: leave
// change times out (after interrupted runs).
std::vector<std::string> remadeOrTouched(const TreePrint &snapshot, const TreePrint &before,
                                         const TreePrint &after, bool timesToo);

// Everything but the root that is another inode than before, or was changed in any way.
std::vector<std::string> exchangedOrChanged(const TreePrint &before, const TreePrint &after);

// Returns when the clock that the file system stamps changes with has moved on. What is done afterwards
// has another change time than what was done before; without it both can lie in one tick (some ms).
void awaitClockTick();

}  // namespace testsupport
