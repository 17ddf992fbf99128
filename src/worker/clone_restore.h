// Making clones and clone parents again.
#pragma once

#include <cstdint>
#include <string>

// Op 10: makes the clone at `path` (a place in the tree or a temporary location) from its parent, with
// the snapshot's data and attributes; a clone parent, whether it was made here or as an ordinary file
// before, becomes one and its new inode number is recorded for the next depth. What a lost worker left
// half done is taken up where it stands. 0 or an error code, with errno set.
int cloneFile(const std::string &path, uint64_t ino);
