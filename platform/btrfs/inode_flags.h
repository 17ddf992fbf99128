// The inode flags that users can set: immutable, append-only and others that no blob carries, and the
// storage flags for compression and no-copy-on-write.
#pragma once

#include <cstdint>

#include <sys/types.h>

#include "filesystem/file_system.h"

namespace kest {

// Reads the protection of `name` in the directory `dir_fd` without following a link; with "" that of
// the descriptor's own object (O_PATH suffices). 0 or -errno. Objects that cannot have the flags (FIFO,
// socket, device, symbolic link) have neither.
int readProtection(int dir_fd, const char *name, Protection *protection);

// Sets both flags of the file or directory of `fd`, a descriptor open for reading and not O_PATH.
// Writes nothing if they are already so. Keeps all other flags and the compression property. 0 or
// -errno.
int writeProtection(int fd, Protection protection);

// Sets the KEST_FP_* flags of the file or directory of `fd`, a descriptor without O_PATH, to `wanted`.
// Keeps all other flags and the compression property. 0 or -errno.
int writeFlags(int fd, uint32_t wanted);

// Reads FS_IOC_GETFLAGS of the object of `fd`; no flags, and 0, if the object cannot have any. 0 or
// -errno.
int readAllFlags(int fd, unsigned *flags);

// Convert FS_IOC_GETFLAGS flags, and the flags in the item of an inode with this st_mode, to KEST_FP_*
// bits.
uint32_t protectionBits(unsigned flags);
uint32_t protectionBitsOfItem(mode_t mode, uint64_t item_flags);

// Reads the flags of kStorageFlags that the object of `fd` has; none, and 0, if the object cannot have
// any. 0 or -errno.
int readStorageFlags(int fd, unsigned *flags);

// Sets the three storage flags to `flags` and keeps all others. Set the property btrfs.compression
// afterwards: the kernel resets it in every such call, to its default algorithm or to none. On a file
// with data the kernel ignores FS_NOCOW_FL in both directions. 0 or -errno.
int writeStorageFlags(int fd, unsigned flags);

// Converts the storage flags in an inode item to the form of FS_IOC_GETFLAGS, as readStorageFlags would
// report them for an inode of this st_mode. Only files and directories have them, whatever a FIFO or
// link inherited from its directory.
unsigned storageFlagsOfItem(mode_t mode, uint64_t item_flags);

// Returns the protection in an inode item's flags.
Protection protectionOfItem(uint64_t item_flags);

// Returns true if a file with flags `to` in its item can take over blocks and storage flags of one with
// flags `from` while it has data.
bool sharesInPlace(uint64_t from, uint64_t to);

}  // namespace kest
