// Reading and setting the extended attributes of an inode as one byte string.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "libkest/blob_format.h"
#include "libkest/open_inode.h"

namespace kest {

// Whether the blob of an inode would hold anything: `names` of its XATTR_ITEMs, `item_flags` of its
// inode item. This is what ia_xattr must say.
bool carriesBlob(mode_t mode, uint64_t item_flags, const std::vector<std::string> &names);

// The names of all attributes of an open inode, however many. 0 or -errno.
int listAttributes(const OpenInode &file, std::vector<std::string> *names);

// The blob of an open inode; empty where there is nothing to tell. 0 or -errno.
int readBlob(OpenInode *file, std::string *blob);

// Makes the attributes those of `blob` ("" : none) and writes nothing where they are already.
// No-copy-on-write can change only while a file is empty: a file with data keeps the state it has, and
// one that stays no-copy-on-write goes without compression.
// 0; -EINVAL no blob of ours; -EPERM immutable or append-only; -errno.
int writeBlob(OpenInode *file, std::string_view blob);

}  // namespace kest
