// Finds the paths of an inode number.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"
#include "kest.h"

// Finds all paths of inode `ino` in the tree of `handle` and puts `root` before each; with "" they are
// relative. rc of a failure is the errno. An inode without a name is ENOENT, never an empty result.
Result findInodePaths(kest_fssnap_handle_t *handle, uint64_t ino, const std::string &root,
                      std::vector<std::string> *paths);

// Finds the first of these paths in byte order, relative to the tree's root.
Result firstPath(kest_fssnap_handle_t *handle, uint64_t ino, std::string *path);
