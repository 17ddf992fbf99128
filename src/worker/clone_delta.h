// The data in which a clone differs from its parent.
#pragma once

#include <cstdint>
#include <string>

#include "kest.h"

// Gives the fresh clone `ino` at `path` the size and data of the snapshot's clone, which `snap` has
// open. Blocks are shared with that one: what it shared with its parent the fresh clone shares with the
// parent of today, which holds the same blocks. Where sharing is refused, only blocks that differ are
// written, holes as holes. 0, or an error code after a trace line, with errno set.
int restoreCloneDelta(const std::string &path, kest_ifile_t *snap, uint64_t ino);
