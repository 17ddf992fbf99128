// Moves objects aside and home.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"

// In phases up to 3, moves `path` to the temporary location of `ino`, or with `deleteClone` to its
// clone delete location. *newPath (may be null) receives the location, or "" if the source does not
// exist, which is no failure.
//
// In later phases, moves the object at `path` to its recorded destination and restores its attributes.
// In phase 4 a taken destination makes the move pending; phase 6 leaves a symbolic link to the
// destination. If the source does not exist, restores the attributes of the object at the destination
// once more, provided that it is inode `ino`.
//
// Never replaces an object. Failures are traced.
Result moveFile(const std::string &path, uint64_t ino, int32_t phase, std::string *newPath,
                bool deleteClone);
