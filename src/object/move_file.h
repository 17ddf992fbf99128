// Moving objects aside and back.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"

// Phases up to 3: moves `path` to the temporary location of `ino` (with `deleteClone` its clone delete
// location), which *newPath (may be null) receives. Above 3: moves the object at `path` back to its
// recorded destination and restores its attributes; in phase 4 a taken destination makes it a pending
// move; in phase 6 a symbolic link to the destination is left behind. Nothing is ever replaced. A
// source that does not exist is done: *newPath is left empty, and above phase 3 the attributes of the
// object at the destination are restored once more if it is inode `ino`. Failures are traced.
Result moveFile(const std::string &path, uint64_t ino, int32_t phase, std::string *newPath,
                bool deleteClone);
