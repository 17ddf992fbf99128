// Checkpoint lines, which record what a worker has done: "%llx %s\n" with inode and op string of a
// record.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "formats/operation.h"

constexpr size_t kCheckpointLineMax = 16384;  // bytes; no line is longer
constexpr size_t kCheckpointLineMin = 12;     // bytes; none is shorter

std::string formatCheckpointLine(uint64_t ino, std::string_view opString);
// Returns false if the line does not hold both. `opString` points into `line`.
bool parseCheckpointLine(std::string_view line, uint64_t *ino, std::string_view *opString);
