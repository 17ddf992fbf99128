// The extended attributes of an inode as one self-describing byte string.
//
// Layout, host byte order: header {char magic[8] "KESTATTR", u32 version 1, u32 total length, u32
// storage flags (FS_IOC_GETFLAGS bits), u32 number of attributes}, then the attributes in the order of
// their names, each {u32 name length, u32 value length, name, value}. Equal attributes give equal
// bytes. A blob lives as long as a restore step; it is never stored.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace kest {

// An attribute that goes with the storage flags; only btrfs has it.
inline constexpr char kCompressionProperty[] = "btrfs.compression";
// How a CephFS lays out the data of a file, or of new files in a directory.
inline constexpr char kFileLayout[] = "ceph.file.layout", kDirLayout[] = "ceph.dir.layout";

// FS_COMPR_FL, FS_NOCOMP_FL and FS_NOCOW_FL: the flags of FS_IOC_GETFLAGS that a blob carries.
extern const unsigned kStorageFlags;

struct BlobAttributes {
  std::map<std::string, std::string, std::less<>> xattrs;
  unsigned flags = 0;  // without the compression flags where the property is there: it implies them

  bool empty() const { return xattrs.empty() && flags == 0; }
};

// Whether an extended attribute of this name travels in the blob: user.*, trusted.* but trusted.kest.*,
// security.*, the compression property, and layouts. ACLs travel by kest_getacl.
bool travelsInBlob(std::string_view name);

std::string encodeBlob(const BlobAttributes &attributes);
// False for anything that encodeBlob does not make.
bool decodeBlob(std::string_view blob, BlobAttributes *out);
// The blob that begins at `buf`, as long as it says; "" where none begins.
std::string_view blobAt(const void *buf);

}  // namespace kest
