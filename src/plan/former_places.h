// Remembers where objects were before the walks moved them aside. Messages use these paths, because
// users know no temporary locations. Master only.
#pragma once

#include <cstdint>
#include <string>

// Notes that the directory `ino` is moved aside from `path`, which can lie in a temporary location
// itself.
void noteFormerPlace(uint64_t ino, const std::string &path);

// Returns the path of the object at `path` before the walks moved it or a directory above it.
std::string formerPath(const std::string &path);
