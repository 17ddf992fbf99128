// Opens inodes by number.
#pragma once

#include <cstdint>

#include "base/unique_fd.h"

namespace kest {

// Opens inode `ino` of subvolume `subvol_id` with the flags of open(2). Use O_PATH first: without it,
// opening a device node or FIFO would have side effects. `mount_fd` is any descriptor on the file
// system. `generation` 0 skips the kernel's check. Returns the descriptor or -errno; -ENOENT: the inode
// does not exist, has an impossible number or has no name.
int openByInode(int mount_fd, uint64_t subvol_id, uint64_t ino, uint32_t generation, int flags);

// Like openByInode, but also opens an unlinked inode that some process holds open. For callers that
// check the link count themselves.
int openEvenNameless(int mount_fd, uint64_t subvol_id, uint64_t ino, uint32_t generation, int flags);

// Opens the file or directory of an O_PATH descriptor without O_PATH, through /proc/self/fd. Waits
// until leases on a file are broken. Returns the descriptor, which is close-on-exec, or -errno.
int openAgain(int path_fd, int flags);

struct InodeAddress {
  uint64_t subvol_id = 0;
  uint64_t ino = 0;         // 256: the root of a subvolume; 2: the stub of a subvolume in a snapshot
  uint32_t generation = 0;  // low 32 bits
  int mount_id = 0;         // mount in which the lookup ended
};

// Finds the address of `name` in the directory `dir_fd`, or of `dir_fd` itself (O_PATH suffices) for
// "". Does not follow a symbolic link, but enters a mount on it. 0 or -errno; -EXDEV: the object is not
// on a btrfs.
int addressOf(int dir_fd, const char *name, InodeAddress *address);

}  // namespace kest
