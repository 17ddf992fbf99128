// Opens kernel descriptors, through a mount, for the few calls that return one.
#pragma once

#include <cstdint>
#include <string>

#include "cephfs/tree_root.h"

namespace kest {

// Opens a close-on-exec O_PATH descriptor of inode `ino` of the tree. `path` is its path below the
// root, or NULL if it is not known. -ESTALE: the path leads to another inode by now; or another -errno.
int openDescriptor(const CephRoot &root, uint64_t ino, const std::string *path);

}  // namespace kest
