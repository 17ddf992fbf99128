// How much memory the difference table may take. Master only.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"

// 30 % of the machine's memory, at most 4 GiB, in KiB. rc of a failure, which has been traced, is -1 or
// an errno.
Result setMaxMemUsage(uint64_t *mem, const std::string &meminfo = "/proc/meminfo");

// Difference items that one pass may hold with a budget of `mem` KiB.
uint64_t diffItemLimit(uint64_t mem);
