// The kernel's inode flags, all that a user can set: immutable, append-only and others that no blob
// carries; compression and no-copy-on-write.
#pragma once

#include <cstdint>

#include <sys/types.h>

#include "filesystem/file_system.h"

namespace kest {

// Protection of `name` in the directory `dir_fd`, never following a link; with `name` "" of the object
// of the descriptor itself, which may be any, O_PATH included. 0 or -errno. Objects that cannot carry
// the flags (FIFO, socket, device, link) have neither.
int readProtection(int dir_fd, const char *name, Protection *protection);

// Sets both flags of the file or directory behind the real descriptor `fd`, open for reading; writes
// nothing where they are so already. Every other flag and the compression property stay. 0 or -errno.
int writeProtection(int fd, Protection protection);

// Makes the KEST_FP_* flags of the file or directory behind the real descriptor `fd` those of `wanted`;
// every other flag and the compression property stay. 0 or -errno.
int writeFlags(int fd, uint32_t wanted);

// FS_IOC_GETFLAGS of the file or directory behind `fd`. 0 or -errno; 0 and no flags where the object
// has none.
int readAllFlags(int fd, unsigned *flags);

// The KEST_FP_* bits of FS_IOC_GETFLAGS flags, and of an inode item's, of an inode of this st_mode.
uint32_t protectionBits(unsigned flags);
uint32_t protectionBitsOfItem(mode_t mode, uint64_t item_flags);

// Those of kStorageFlags that the file or directory behind `fd` has.
// 0 or -errno; 0 and no flags where the object has none.
int readStorageFlags(int fd, unsigned *flags);

// Makes the three storage flags those of `flags` and leaves the others. The kernel resets the
// property btrfs.compression with every such call (to its default algorithm, or to none): set it
// afterwards. It also ignores FS_NOCOW_FL, both ways, on a file with data. 0 or -errno.
int writeStorageFlags(int fd, unsigned flags);

// FS_IOC_GETFLAGS form of the storage flags in an inode item's `flags`, as readStorageFlags would
// report them for an inode of this st_mode: only files and directories have them, whatever a FIFO or
// link inherited from its directory.
unsigned storageFlagsOfItem(mode_t mode, uint64_t item_flags);

// The protection that an inode item's `flags` say.
Protection protectionOfItem(uint64_t item_flags);

// By the `flags` of their inode items, whether a file can get blocks and storage flags of another one
// while it has data.
bool sharesInPlace(uint64_t from, uint64_t to);

}  // namespace kest
