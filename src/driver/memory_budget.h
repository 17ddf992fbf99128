// How much memory the difference table may take. Master only.
#pragma once

#include <cstdint>
#include <string>

// 30 % of the machine's memory, at most 4 GiB, in KiB. 0, or -1 or an errno after a trace line.
int setMaxMemUsage(uint64_t *mem, const std::string &meminfo = "/proc/meminfo");

// Difference items that one pass may hold with a budget of `mem` KiB. In a source file of its own, so
// that a test program can bring its own.
uint64_t diffItemLimit(uint64_t mem);
