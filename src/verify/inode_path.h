// The paths of an inode number.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kest.h"

// All paths below the root of the handle's tree, sorted. 0, or -1 and errno (ENOENT: none).
int allPaths(kest_fssnap_handle_t *tree, uint64_t ino, std::vector<std::string> *paths);
// The first of them.
int firstPath(kest_fssnap_handle_t *tree, uint64_t ino, std::string *path);
