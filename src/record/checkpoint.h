// Checkpoint lines: what a worker has done.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// "%llx %s\n".
std::string formatCheckpointLine(uint64_t ino, std::string_view opString);
// False when the line does not hold both.
bool parseCheckpointLine(std::string_view line, uint64_t *ino, std::string_view *opString);
