// Hard links.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Op 8: gives inode `ino` of the snapshot all its names, as one inode. The path is used in traces only.
// 0 or an error code, with errno set.
int linkFile(const std::string &path, uint64_t ino);

// Reads the path lookup's output, a line "<inode> <generation> <escaped path>" for each name. False
// when a line is none, is cut off, or speaks of another inode.
bool parseInodePaths(std::string_view output, uint64_t ino, std::vector<std::string> *paths);
