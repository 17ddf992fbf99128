// Per-directory runs: the lists of one deleted or new top directory, depth by depth. Workers only.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

// Performs the records of a list in the calling process; 0, or an error code with errno.
using ListRunner = std::function<int(const std::string &listPath)>;

// Runs the set DelDir_<ino> (shallowest depth first) or NewDir_<ino> (deepest first). Each list is
// removed once it succeeded. A list that would make one small batch is handed to `here`: starting the
// engine would take longer than the work. 0, also without a set, or the rc of the first run that
// failed.
int restoreDelNewDir(uint64_t ino, bool isDelDir, const ListRunner &here);
