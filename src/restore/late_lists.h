// The lists that the master itself reads after the passes: which clone lists exist, the directories
// whose attributes are still to be set, and those to be moved home. Master only.
#pragma once

#include <string>
#include <vector>

#include "base/result.h"

enum class CloneLists {
  kDelete,   // clone.del.<d>, up to depth 1001, deepest first
  kRestore,  // clone.<d>, up to depth 1000, shallowest first
};

// Finds the depths of the existing lists, in the order of their runs. rc of a failure is an errno;
// EINVAL, after a message: a list is deeper than any that is run.
Result listedCloneDepths(CloneLists kind, std::vector<int> *depths);

// Moves the records of `from` (dir.new) to the new list `to` and removes `from`. Keeps the first record
// of every directory (inode and path), in order. rc of a failure is an errno; EIO: a record is damaged.
Result takeDirRecords(const std::string &from, const std::string &to);

// Moves the directories of dirMoveList home. Failures are traced; rc is an errno or that of the move.
Result doFinalDirMove();
