// The paths of an inode number.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"
#include "kest.h"

// Finds every path of inode `ino` of the tree behind `handle`, each below `root`, which is put before
// it (with "" they are relative). rc of a failure is the errno, ENOENT where there is none: a lookup
// that fails is never "no names".
Result findInodePaths(kest_fssnap_handle_t *handle, uint64_t ino, const std::string &root,
                      std::vector<std::string> *paths);

// The first of them, in the order of bytes, relative.
Result firstPath(kest_fssnap_handle_t *handle, uint64_t ino, std::string *path);
