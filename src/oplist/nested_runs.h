// Per-directory runs: the lists of one deleted or new top directory, depth by depth. Workers only.
#pragma once

#include <cstdint>

// Runs the set DelDir_<ino> (shallowest depth first) or NewDir_<ino> (deepest first). Each list is
// removed once it succeeded. 0, also without a set, or the rc of the first run that failed.
int restoreDelNewDir(uint64_t ino, bool isDelDir);
