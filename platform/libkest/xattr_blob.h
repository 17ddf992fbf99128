// The extended attributes of an inode as one self-describing byte string.
//
// Layout, host byte order: header {char magic[8] "KESTATTR", u32 version 1, u32 total length, u32
// storage flags (FS_IOC_GETFLAGS bits), u32 number of attributes}, then the attributes in the order of
// their names, each {u32 name length, u32 value length, name, value}. Equal attributes give equal
// bytes. A blob lives as long as a restore step; it is never stored.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "libkest/open_inode.h"

namespace kest {

// Whether an extended attribute of this name travels in the blob: user.*, trusted.* but trusted.kest.*,
// security.*, and the compression property. ACLs travel by kest_getacl.
bool travelsInBlob(std::string_view name);

// Whether the blob of an inode would hold anything: `names` of its XATTR_ITEMs, `item_flags` of its
// inode item. This is what ia_xattr must say.
bool carriesBlob(mode_t mode, uint64_t item_flags, const std::vector<std::string> &names);

// The blob of an open inode; empty where there is nothing to tell. 0 or -errno.
int readBlob(OpenInode *file, std::string *blob);

// Makes the attributes those of `blob` ("" : none) and writes nothing where they are already.
// No-copy-on-write can change only while a file is empty: a file with data keeps the state it has, and
// one that stays no-copy-on-write goes without compression.
// 0; -EINVAL no blob of ours; -EPERM immutable or append-only; -errno.
int writeBlob(OpenInode *file, std::string_view blob);

}  // namespace kest
