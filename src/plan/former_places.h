// Where objects stood before the walks moved them aside, for messages: users know no temporary
// locations. Master only.
#pragma once

#include <cstdint>
#include <string>

// The directory `ino` is moved aside from `path`, which may itself lie in a temporary location.
void noteFormerPlace(uint64_t ino, const std::string &path);

// `path`, or where what it leads to stood before.
std::string formerPath(const std::string &path);
