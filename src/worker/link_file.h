// Hard links.
#pragma once

#include <cstdint>
#include <string>

// Op 8: gives inode `ino` of the snapshot all its names, as one inode. The path is used in traces only.
// 0 or an error code, with errno set.
int linkFile(const std::string &path, uint64_t ino);
