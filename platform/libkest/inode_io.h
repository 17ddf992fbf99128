// Opening, reading and writing inodes by number.
#pragma once

#include <cstdint>
#include <memory>

#include "libkest/open_inode.h"

namespace kest {

// ia_rdev for a device number; only the low 12 bits of the minor fit.
uint32_t packDevice(unsigned major_no, unsigned minor_no);

// 0 and the open inode; -ENOENT, -errno.
int openNumber(kest_fssnap_handle *handle, uint64_t ino, std::unique_ptr<OpenInode> *opened);

// The same for a regular file behind `fd`, which is open for reading and writing and taken over on
// success.
int openDescriptor(kest_fssnap_handle *handle, int fd, std::unique_ptr<OpenInode> *opened);

// Attributes as they are now. 0; -ENOENT, -errno.
int statByNumber(kest_fssnap_handle *handle, uint64_t ino, kest_iattr64_t *attr);

// Writing to a file and sharing with it cost it its capabilities. The one is called before the first
// such step, the other behind every one, for a worker may die before it closes the file. 0 or -errno.
int saveCapability(OpenInode *file);
int putBackCapability(const OpenInode *file);

}  // namespace kest
