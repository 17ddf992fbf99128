// Determines how much memory the difference table may take. Master only.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"

// Sets *mem to 30 % of the machine's memory, at most 4 GiB, in KiB. rc of a failure is -1 or an errno,
// after a trace line.
Result setMaxMemUsage(uint64_t *mem, const std::string &meminfo = "/proc/meminfo");

// Returns the number of difference items that one pass may hold with a budget of `mem` KiB.
uint64_t diffItemLimit(uint64_t mem);
