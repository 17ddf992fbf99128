// Opening inodes by number.
#pragma once

#include <cstdint>

#include "base/unique_fd.h"

namespace kest {

// Opens inode `ino` of subvolume `subvol_id` with open(2) `flags` (O_PATH first: without it a device
// node or FIFO would really be opened). `mount_fd`: any descriptor on the file system. `generation` 0
// skips the kernel's check. The descriptor, or -errno; a vanished, impossible or nameless inode is
// -ENOENT.
int openByInode(int mount_fd, uint64_t subvol_id, uint64_t ino, uint32_t generation, int flags);

// The same, except that an unlinked inode that somebody still holds open opens as well: for callers
// that look at the number of links themselves.
int openEvenNameless(int mount_fd, uint64_t subvol_id, uint64_t ino, uint32_t generation, int flags);

// Opens the file or directory behind an O_PATH descriptor for real, through /proc/self/fd, and waits
// for leases on a file to be broken. The descriptor, which is close-on-exec, or -errno.
int openAgain(int path_fd, int flags);

struct InodeAddress {
  uint64_t subvol_id = 0;
  uint64_t ino = 0;         // 256 for the root of a subvolume, 2 for the stub of one in a snapshot
  uint32_t generation = 0;  // low 32 bits
  int mount_id = 0;         // of the mount that the lookup ended in
};

// Where the file system keeps `name` of the directory `dir_fd`, or `dir_fd` itself (O_PATH will do) for
// an empty name; links are not followed, a mount standing on it is. 0, or -errno (-EXDEV where the
// object is not of a btrfs).
int addressOf(int dir_fd, const char *name, InodeAddress *address);

}  // namespace kest
