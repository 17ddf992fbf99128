// Per-directory runs: the lists of one deleted or new top directory, depth by depth. Workers only.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "base/result.h"

// Performs the records of a list in the calling process.
using ListRunner = std::function<Result(const std::string &listPath)>;

// Runs the set DelDir_<ino> (shallowest depth first) or NewDir_<ino> (deepest first). Each list is
// removed once it succeeded. A list that would make one small batch is handed to `here`: starting the
// engine would take longer than the work. Done also without a set; else the failure of the first list,
// traced.
Result restoreDelNewDir(uint64_t ino, bool isDelDir, const ListRunner &here);
