// Checkpoint lines: what a worker has done. "%llx %s\n": inode and op string of a record.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "formats/operation.h"

constexpr size_t kCheckpointLineMax = 16384;  // bytes; no line is longer
constexpr size_t kCheckpointLineMin = 12;     // bytes; none is shorter

std::string formatCheckpointLine(uint64_t ino, std::string_view opString);
// False when the line does not hold both. `opString` lies in `line`.
bool parseCheckpointLine(std::string_view line, uint64_t *ino, std::string_view *opString);
