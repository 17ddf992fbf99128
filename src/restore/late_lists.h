// The lists that the master reads itself after the passes: which clone lists there are, the directories
// whose attributes are still to be set, and those to be moved back. Master only.
#pragma once

#include <string>
#include <vector>

#include "base/result.h"

enum class CloneLists {
  kDelete,   // clone.del.<d>: depths up to 1001, deepest first
  kRestore,  // clone.<d>: depths up to 1000, shallowest first
};

// Depths of the lists that exist, in the order in which they are worked off. rc of a failure is an
// errno: EINVAL, after a message, for a list that is deeper than any that is worked off.
Result listedCloneDepths(CloneLists kind, std::vector<int> *depths);

// Moves the records of `from` (dir.new) to the new list `to`, each directory (inode and path) once, in
// the order in which they were listed first; `from` is gone afterwards. rc of a failure is an errno,
// EIO when a record is damaged.
Result takeDirRecords(const std::string &from, const std::string &to);

// Works off dirMoveList: moves directories back to their snapshot paths. Failures are traced; their rc
// is an errno or that of the move.
Result doFinalDirMove();
