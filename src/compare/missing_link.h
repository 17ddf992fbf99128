// Names of hard-linked inodes that only the snapshot has.
#pragma once

#include <cstdint>
#include <string>

// Lists the inode for its names. A clone or clone parent must be made as one before its names are
// linked: *alsoDeleted is set once an inode of that kind, and the caller then also lists `path` as a
// deleted file. 0 or -1 and errno.
int listMissingLink(const std::string &path, uint64_t ino, bool *alsoDeleted);
