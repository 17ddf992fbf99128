#include "libkest/xattr_blob.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <linux/fs.h>
#include <sys/stat.h>

#include "btrfs/inode_flags.h"
#include "btrfs/tree_items.h"
#include "btrfs/xattr.h"
#include "libkest/c_call.h"
#include "libkest/fileset_handle.h"

namespace kest {
namespace {

constexpr unsigned kCompressionFlags = FS_COMPR_FL | FS_NOCOMP_FL;

bool hasStorageFlags(const OpenInode &file) {
  return S_ISREG(file.if_mode) || S_ISDIR(file.if_mode);
}

int readAttributes(OpenInode *file, BlobAttributes *out) {
  int real_fd = -1;
  if (hasStorageFlags(*file)) {
    real_fd = file->readFd();
    if (real_fd < 0) return real_fd;
  }
  std::vector<std::string> names;
  int fd = file->anyFd();
  if (int rc = listAttributes(*file, &names); rc != 0) return rc;
  for (const std::string &name : names) {
    if (!travelsInBlob(name)) continue;
    std::string value;
    int rc = readXattr(fd, name.c_str(), &value);
    if (rc == -ENODATA) continue;  // removed since it was listed
    if (rc != 0) return rc;
    out->xattrs.emplace(name, std::move(value));
  }
  if (real_fd < 0) return 0;
  if (int rc = readStorageFlags(real_fd, &out->flags); rc != 0) return rc;
  if (out->xattrs.contains(kCompressionProperty)) out->flags &= ~kCompressionFlags;
  return 0;
}

bool sameValue(const BlobAttributes &attributes, const std::string &name, const std::string &value) {
  auto found = attributes.xattrs.find(name);
  return found != attributes.xattrs.end() && found->second == value;
}

// The state that the kernel can bring the object into, of what the blob asks for.
int adjustToPossible(OpenInode *file, const BlobAttributes &now, BlobAttributes *wanted) {
  if (S_ISREG(file->if_mode)) {
    struct stat st;
    if (fstat(file->path_fd.get(), &st) != 0) return -errno;
    if (st.st_size > 0) {
      unsigned fixed = now.flags & FS_NOCOW_FL;
      wanted->flags = (wanted->flags & ~FS_NOCOW_FL) | fixed;
      // Beside it the no-compression flag can be taken away, but not added.
      if (fixed != 0) wanted->flags &= now.flags;
    }
  }
  if (wanted->flags & FS_NOCOW_FL) {
    wanted->flags &= ~FS_COMPR_FL;
    wanted->xattrs.erase(kCompressionProperty);
  } else if ((wanted->flags & FS_COMPR_FL) && now.xattrs.contains(kCompressionProperty)) {
    // The kernel sets the flag only together with the property: what it made of it last time stays.
    wanted->xattrs.emplace(kCompressionProperty, now.xattrs.find(kCompressionProperty)->second);
    wanted->flags &= ~FS_COMPR_FL;
  }
  return 0;
}

// Storage flags and compression property, which the kernel changes together.
int applyStorage(OpenInode *file, const BlobAttributes &now, const BlobAttributes &wanted) {
  auto property = wanted.xattrs.find(kCompressionProperty);
  bool has_property = now.xattrs.contains(kCompressionProperty);
  bool wants_property = property != wanted.xattrs.end();
  if (now.flags == wanted.flags && has_property == wants_property &&
      (!wants_property || sameValue(now, kCompressionProperty, property->second)))
    return 0;

  int fd = file->path_fd.get();
  if (has_property && !wants_property) {
    // Refused on an immutable object, unlike the change of flags below, so it goes first.
    if (int rc = removeXattr(fd, kCompressionProperty); rc != 0) return rc;
  }
  if (now.flags != wanted.flags) {
    int real_fd = file->readFd();
    if (real_fd < 0) return real_fd;
    // The kernel refuses most ways from one state to another, but none by way of no flag at all. (It
    // leaves no-copy-on-write on a file with data, whatever it is told.)
    if (int rc = writeStorageFlags(real_fd, 0); rc != 0) return rc;
    if (wanted.flags != 0) {
      if (int rc = writeStorageFlags(real_fd, wanted.flags); rc != 0) return rc;
    }
  }
  return wants_property ? writeXattr(fd, kCompressionProperty, property->second) : 0;
}

}  // namespace

// The kernel lists at most 64 KiB of names; the tree holds any number of them.
int listAttributes(const OpenInode &file, std::vector<std::string> *names) {
  int rc = listXattrs(file.anyFd(), names);
  if (rc != -E2BIG) return rc;
  TreeReader tree(file.handle->root.get(), file.handle->subvol_id);
  std::vector<XattrItem> items;
  rc = readXattrs(tree, file.if_inode, &items);
  if (rc <= 0) return rc == 0 ? -ENOENT : rc;
  for (XattrItem &item : items) names->push_back(std::move(item.name));
  return 0;
}

bool carriesBlob(mode_t mode, uint64_t item_flags, const std::vector<std::string> &names) {
  return storageFlagsOfItem(mode, item_flags) != 0 ||
         std::any_of(names.begin(), names.end(), [](const std::string &n) { return travelsInBlob(n); });
}

int readBlob(OpenInode *file, std::string *blob) {
  BlobAttributes attributes;
  if (int rc = readAttributes(file, &attributes); rc != 0) return rc;
  blob->clear();
  if (!attributes.empty()) *blob = encodeBlob(attributes);
  return 0;
}

int writeBlob(OpenInode *file, std::string_view blob) {
  BlobAttributes now, wanted;
  if (!blob.empty() && !decodeBlob(blob, &wanted)) return -EINVAL;
  if (int rc = readAttributes(file, &now); rc != 0) return rc;
  if (int rc = adjustToPossible(file, now, &wanted); rc != 0) return rc;

  const int fd = file->anyFd();
  for (const auto &[name, value] : wanted.xattrs) {
    if (name == kCompressionProperty || sameValue(now, name, value)) continue;
    if (int rc = writeXattr(fd, name.c_str(), value); rc != 0) return rc;
  }
  for (const auto &[name, value] : now.xattrs) {
    if (name == kCompressionProperty || wanted.xattrs.contains(name)) continue;
    if (int rc = removeXattr(fd, name.c_str()); rc != 0) return rc;
  }
  // What a data write has to put back is known now.
  auto capability = wanted.xattrs.find("security.capability");
  file->capability_known = true;
  file->capability.reset();
  if (capability != wanted.xattrs.end()) file->capability = capability->second;
  return applyStorage(file, now, wanted);
}

}  // namespace kest

using namespace kest;

extern "C" int kest_igetattrsx(kest_ifile_t *file, int, void *buf, int size, int *attr_size) {
  return cCall([&] {
    if (file == nullptr || file->if_kind != KEST_IFILE_KIND || attr_size == nullptr || size < 0)
      return -EINVAL;
    std::string blob;
    if (int rc = readBlob(openInode(file), &blob); rc != 0) return rc;
    *attr_size = static_cast<int>(blob.size());
    if (blob.size() > static_cast<size_t>(size)) return -ENOSPC;
    if (!blob.empty()) memcpy(buf, blob.data(), blob.size());
    return 0;
  });
}

extern "C" int kest_iputattrsx(kest_ifile_t *file, int, const void *buf, const char *) {
  return cCall([&] {
    if (file == nullptr || file->if_kind != KEST_IFILE_KIND) return -EINVAL;
    std::string_view blob;
    if (buf != nullptr) {
      blob = blobAt(buf);
      if (blob.empty()) return -EINVAL;
    }
    return writeBlob(openInode(file), blob);
  });
}
