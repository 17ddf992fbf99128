// Reads and sets the extended attributes of an open inode as one byte string.
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include <linux/fs.h>
#include <sys/stat.h>

#include "filesystem/blob_format.h"
#include "libkest/c_call.h"
#include "libkest/open_file.h"

namespace kest {
namespace {

constexpr unsigned kCompressionFlags = FS_COMPR_FL | FS_NOCOMP_FL;

int readAttributes(Inode &inode, BlobAttributes *out) {
  const mode_t mode = inode.facts().mode;
  const bool has_storage_flags = S_ISREG(mode) || S_ISDIR(mode);
  if (has_storage_flags) {
    if (int rc = inode.openForReading(); rc < 0) return rc;
  }
  std::vector<std::string> names;
  if (int rc = inode.listXattrs(&names); rc != 0) return rc;
  for (const std::string &name : names) {
    if (!travelsInBlob(name)) continue;
    std::string value;
    int rc = inode.readXattr(name.c_str(), &value);
    if (rc == -ENODATA) continue;  // removed since it was listed
    if (rc != 0) return rc;
    out->xattrs.emplace(name, std::move(value));
  }
  if (!has_storage_flags) return 0;
  if (int rc = inode.readStorageFlags(&out->flags); rc != 0) return rc;
  if (out->xattrs.contains(kCompressionProperty)) out->flags &= ~kCompressionFlags;
  return 0;
}

// Reads the blob of an open inode; "" if there is nothing to restore. 0 or -errno.
int readBlob(Inode &inode, std::string *blob) {
  BlobAttributes attributes;
  if (int rc = readAttributes(inode, &attributes); rc != 0) return rc;
  blob->clear();
  if (!attributes.empty()) *blob = encodeBlob(attributes);
  return 0;
}

bool sameValue(const BlobAttributes &attributes, const std::string &name, const std::string &value) {
  auto found = attributes.xattrs.find(name);
  return found != attributes.xattrs.end() && found->second == value;
}

// Sets the attributes to those in `blob` ("": none) and writes nothing that is equal already.
// No-copy-on-write can change only while a file is empty, so a file with data keeps its state, and one
// that stays no-copy-on-write gets no compression. 0; -EINVAL: malformed blob; -EPERM: immutable or
// append-only; or another -errno.
int writeBlob(OpenFile *file, std::string_view blob) {
  Inode &inode = *file->inode;
  BlobAttributes now, wanted;
  if (!blob.empty() && !decodeBlob(blob, &wanted)) return -EINVAL;
  if (int rc = readAttributes(inode, &now); rc != 0) return rc;
  if (int rc = inode.limitStorage(now, &wanted); rc != 0) return rc;

  for (const auto &[name, value] : wanted.xattrs) {
    if (name == kCompressionProperty || sameValue(now, name, value)) continue;
    if (int rc = inode.writeXattr(name.c_str(), value); rc != 0) return rc;
  }
  for (const auto &[name, value] : now.xattrs) {
    if (name == kCompressionProperty || wanted.xattrs.contains(name)) continue;
    if (int rc = inode.removeXattr(name.c_str()); rc != 0) return rc;
  }
  const auto capability = wanted.xattrs.find("security.capability");
  file->capability.replace(capability != wanted.xattrs.end() ? &capability->second : nullptr);
  return inode.applyStorage(now, wanted);
}

}  // namespace
}  // namespace kest

using namespace kest;

extern "C" int kest_igetattrsx(kest_ifile_t *file, int, void *buf, int size, int *attr_size) {
  return cCall([&] {
    OpenFile *open = openFile(file);
    if (open == nullptr || attr_size == nullptr || size < 0) return -EINVAL;
    std::string blob;
    if (int rc = readBlob(*open->inode, &blob); rc != 0) return rc;
    *attr_size = static_cast<int>(blob.size());
    if (blob.size() > static_cast<size_t>(size)) return -ENOSPC;
    if (!blob.empty()) memcpy(buf, blob.data(), blob.size());
    return 0;
  });
}

extern "C" int kest_iputattrsx(kest_ifile_t *file, int, const void *buf, const char *) {
  return cCall([&] {
    OpenFile *open = openFile(file);
    if (open == nullptr) return -EINVAL;
    std::string_view blob;
    if (buf != nullptr) {
      blob = blobAt(buf);
      if (blob.empty()) return -EINVAL;
    }
    return writeBlob(open, blob);
  });
}
