// Finds the programs that run on this machine.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <unordered_set>

namespace kest {

// Returns the inode numbers of the running programs whose files have this st_dev. Processes that /proc
// does not show are missed.
std::unordered_set<uint64_t> runningPrograms(dev_t device);

}  // namespace kest
