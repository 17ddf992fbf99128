// The programs that run on this machine.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <unordered_set>

namespace kest {

// Inode numbers of those with this st_dev, as far as /proc shows their processes.
std::unordered_set<uint64_t> runningPrograms(dev_t device);

}  // namespace kest
