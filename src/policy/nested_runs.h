// Runs the lists of one deleted or new top directory, depth by depth. Workers only.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "base/result.h"

// Performs the records of a list in the calling process.
using ListRunner = std::function<Result(const std::string &listPath)>;

// Runs the lists of the set DelDir_<ino>, shallowest depth first, or NewDir_<ino>, deepest first.
// Removes each list that succeeded. Hands a list that is one small batch to `here`, because starting
// the engine would take longer than the work. Success without a set. Otherwise returns the failure of
// the first list, traced.
Result restoreDelNewDir(uint64_t ino, bool isDelDir, const ListRunner &here);
