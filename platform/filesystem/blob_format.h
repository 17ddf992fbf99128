// The extended attributes of an inode as one self-describing byte string.
//
// Layout in host byte order: a header {char magic[8] "KESTATTR", u32 version 1, u32 total length, u32
// storage flags (FS_IOC_GETFLAGS bits), u32 number of attributes}, then the attributes sorted by name,
// each {u32 name length, u32 value length, name, value}. Equal attributes give equal bytes. A blob is
// never stored; it exists only during a restore step.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace kest {

// The attribute that belongs to the storage flags. Only btrfs has it.
inline constexpr char kCompressionProperty[] = "btrfs.compression";
// How a CephFS lays out the data of a file, or of new files in a directory.
inline constexpr char kFileLayout[] = "ceph.file.layout", kDirLayout[] = "ceph.dir.layout";

// The flags that a blob carries: FS_COMPR_FL, FS_NOCOMP_FL and FS_NOCOW_FL of FS_IOC_GETFLAGS.
extern const unsigned kStorageFlags;

struct BlobAttributes {
  std::map<std::string, std::string, std::less<>> xattrs;
  unsigned flags = 0;  // without the compression flags if the property implies them

  bool empty() const { return xattrs.empty() && flags == 0; }
};

// Returns true if the blob carries an extended attribute of this name: user.*, security.*, trusted.*
// except trusted.kest.*, the compression property, and layouts. kest_getacl carries ACLs.
bool travelsInBlob(std::string_view name);

std::string encodeBlob(const BlobAttributes &attributes);
// Returns false for anything that encodeBlob does not produce.
bool decodeBlob(std::string_view blob, BlobAttributes *out);
// Returns the blob that begins at `buf`, with the length in its header; "" if none begins there.
std::string_view blobAt(const void *buf);

}  // namespace kest
