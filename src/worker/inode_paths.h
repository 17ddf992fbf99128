// The path lookup by inode number.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Runs the lookup for inode `ino` below `root`. 0, or -1 and errno: *started tells whether the command
// ran and ended well, so that the output was at fault. A missing or failing command is never "no
// names".
int findInodePaths(uint64_t ino, const std::string &root, std::vector<std::string> *paths,
                   bool *started);

// Reads the path lookup's output, a line "<inode> <generation> <escaped path>" for each name. False
// when a line is none, is cut off, or speaks of another inode.
bool parseInodePaths(std::string_view output, uint64_t ino, std::vector<std::string> *paths);
