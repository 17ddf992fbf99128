// A path of an inode number.
#pragma once

#include <cstdint>
#include <string>

#include "kest.h"

// The first path, in the order of bytes, below the root of the handle's tree. 0, or -1 and errno
// (ENOENT: none).
int firstPath(kest_fssnap_handle_t *tree, uint64_t ino, std::string *path);
