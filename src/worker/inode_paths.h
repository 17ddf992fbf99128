// The path lookup by inode number.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kest.h"

// Finds every path of inode `ino` of the tree behind `handle`, each below `root`, which is put before
// it (with "" they are relative). 0, or -1 and errno: a lookup that fails is never "no names".
int findInodePaths(kest_fssnap_handle_t *handle, uint64_t ino, const std::string &root,
                   std::vector<std::string> *paths);
