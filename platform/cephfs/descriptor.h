// Descriptors of the kernel for those few calls that give one out: through a mount.
#pragma once

#include <cstdint>
#include <string>

#include "cephfs/tree_root.h"

namespace kest {

// An O_PATH descriptor, close-on-exec, of inode `ino` of the tree; `path` below its root where it is
// known, or NULL. -ESTALE: the path means another inode by now; -errno.
int openDescriptor(const CephRoot &root, uint64_t ino, const std::string *path);

}  // namespace kest
