#include "libkest/xattr_blob.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include <linux/fs.h>
#include <sys/stat.h>

#include "btrfs/inode_flags.h"
#include "btrfs/tree_items.h"
#include "btrfs/xattr.h"
#include "libkest/c_call.h"
#include "libkest/fileset_handle.h"

namespace kest {
namespace {

constexpr char kCompression[] = "btrfs.compression";
constexpr char kMagic[8] = {'K', 'E', 'S', 'T', 'A', 'T', 'T', 'R'};
constexpr uint32_t kVersion = 1;
constexpr unsigned kCompressionFlags = FS_COMPR_FL | FS_NOCOMP_FL;

struct BlobHeader {
  char magic[8];
  uint32_t version;
  uint32_t length;
  uint32_t flags;
  uint32_t count;
};

struct EntryHeader {
  uint32_t name_length;
  uint32_t value_length;
};

struct Attributes {
  std::map<std::string, std::string, std::less<>> xattrs;
  unsigned flags = 0;  // without the compression flags where the property is there: it implies them

  bool empty() const { return xattrs.empty() && flags == 0; }
};

bool hasStorageFlags(const OpenInode &file) {
  return S_ISREG(file.if_mode) || S_ISDIR(file.if_mode);
}

// The kernel lists at most 64 KiB of names; the tree holds any number of them.
int listAttributes(const OpenInode &file, std::vector<std::string> *names) {
  int rc = listXattrs(file.path_fd.get(), names);
  if (rc != -E2BIG) return rc;
  TreeReader tree(file.handle->root.get(), file.handle->subvol_id);
  std::vector<XattrItem> items;
  rc = readXattrs(tree, file.if_inode, &items);
  if (rc <= 0) return rc == 0 ? -ENOENT : rc;
  for (XattrItem &item : items) names->push_back(std::move(item.name));
  return 0;
}

int readAttributes(OpenInode *file, Attributes *out) {
  std::vector<std::string> names;
  int fd = file->path_fd.get();
  if (int rc = listAttributes(*file, &names); rc != 0) return rc;
  for (const std::string &name : names) {
    if (!travelsInBlob(name)) continue;
    std::string value;
    int rc = readXattr(fd, name.c_str(), &value);
    if (rc == -ENODATA) continue;  // removed since it was listed
    if (rc != 0) return rc;
    out->xattrs.emplace(name, std::move(value));
  }
  if (!hasStorageFlags(*file)) return 0;
  int real_fd = file->readFd();
  if (real_fd < 0) return real_fd;
  if (int rc = readStorageFlags(real_fd, &out->flags); rc != 0) return rc;
  if (out->xattrs.contains(kCompression)) out->flags &= ~kCompressionFlags;
  return 0;
}

template <typename Record>
void append(std::string *blob, const Record &record) {
  blob->append(reinterpret_cast<const char *>(&record), sizeof record);
}

template <typename Record>
bool take(std::string_view *rest, Record *record) {
  if (rest->size() < sizeof *record) return false;
  memcpy(record, rest->data(), sizeof *record);
  rest->remove_prefix(sizeof *record);
  return true;
}

std::string encode(const Attributes &attributes) {
  BlobHeader header{};
  memcpy(header.magic, kMagic, sizeof kMagic);
  header.version = kVersion;
  header.flags = attributes.flags;
  header.count = static_cast<uint32_t>(attributes.xattrs.size());
  std::string blob;
  append(&blob, header);
  for (const auto &[name, value] : attributes.xattrs) {
    append(&blob, EntryHeader{static_cast<uint32_t>(name.size()), static_cast<uint32_t>(value.size())});
    blob += name;
    blob += value;
  }
  header.length = static_cast<uint32_t>(blob.size());
  memcpy(blob.data(), &header, sizeof header);
  return blob;
}

bool decode(std::string_view blob, Attributes *out) {
  BlobHeader header;
  if (!take(&blob, &header) || memcmp(header.magic, kMagic, sizeof kMagic) != 0 ||
      header.version != kVersion || (header.flags & ~kStorageFlags) != 0)
    return false;
  for (uint32_t i = 0; i < header.count; i++) {
    EntryHeader entry;
    if (!take(&blob, &entry) || entry.name_length > blob.size() ||
        entry.value_length > blob.size() - entry.name_length)
      return false;
    std::string name(blob.substr(0, entry.name_length));
    if (!travelsInBlob(name) || name.find('\0') != std::string::npos) return false;
    out->xattrs.emplace(std::move(name), blob.substr(entry.name_length, entry.value_length));
    blob.remove_prefix(entry.name_length + entry.value_length);
  }
  out->flags = header.flags;
  return blob.empty();
}

bool sameValue(const Attributes &attributes, const std::string &name, const std::string &value) {
  auto found = attributes.xattrs.find(name);
  return found != attributes.xattrs.end() && found->second == value;
}

// The state that the kernel can bring the object into, of what the blob asks for.
int adjustToPossible(OpenInode *file, const Attributes &now, Attributes *wanted) {
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
    wanted->xattrs.erase(kCompression);
  } else if ((wanted->flags & FS_COMPR_FL) && now.xattrs.contains(kCompression)) {
    // The kernel sets the flag only together with the property: what it made of it last time stays.
    wanted->xattrs.emplace(kCompression, now.xattrs.find(kCompression)->second);
    wanted->flags &= ~FS_COMPR_FL;
  }
  return 0;
}

// Storage flags and compression property, which the kernel changes together.
int applyStorage(OpenInode *file, const Attributes &now, const Attributes &wanted) {
  auto property = wanted.xattrs.find(kCompression);
  bool has_property = now.xattrs.contains(kCompression);
  bool wants_property = property != wanted.xattrs.end();
  if (now.flags == wanted.flags && has_property == wants_property &&
      (!wants_property || sameValue(now, kCompression, property->second)))
    return 0;

  int fd = file->path_fd.get();
  if (has_property && !wants_property) {
    // Refused on an immutable object, unlike the change of flags below, so it goes first.
    if (int rc = removeXattr(fd, kCompression); rc != 0) return rc;
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
  return wants_property ? writeXattr(fd, kCompression, property->second) : 0;
}

}  // namespace

bool travelsInBlob(std::string_view name) {
  if (name.starts_with("trusted.")) return !name.starts_with("trusted.kest.");
  return name.starts_with("user.") || name.starts_with("security.") || name == kCompression;
}

bool carriesBlob(mode_t mode, uint64_t item_flags, const std::vector<std::string> &names) {
  return storageFlagsOfItem(mode, item_flags) != 0 ||
         std::any_of(names.begin(), names.end(), [](const std::string &n) { return travelsInBlob(n); });
}

int readBlob(OpenInode *file, std::string *blob) {
  Attributes attributes;
  if (int rc = readAttributes(file, &attributes); rc != 0) return rc;
  blob->clear();
  if (!attributes.empty()) *blob = encode(attributes);
  return 0;
}

int writeBlob(OpenInode *file, std::string_view blob) {
  Attributes now, wanted;
  if (!blob.empty() && !decode(blob, &wanted)) return -EINVAL;
  if (int rc = readAttributes(file, &now); rc != 0) return rc;
  if (int rc = adjustToPossible(file, now, &wanted); rc != 0) return rc;

  int fd = file->path_fd.get();
  for (const auto &[name, value] : wanted.xattrs) {
    if (name == kCompression || sameValue(now, name, value)) continue;
    if (int rc = writeXattr(fd, name.c_str(), value); rc != 0) return rc;
  }
  for (const auto &[name, value] : now.xattrs) {
    if (name == kCompression || wanted.xattrs.contains(name)) continue;
    if (int rc = removeXattr(fd, name.c_str()); rc != 0) return rc;
  }
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
      BlobHeader header;
      memcpy(&header, buf, sizeof header);
      if (memcmp(header.magic, kMagic, sizeof kMagic) != 0) return -EINVAL;
      blob = std::string_view(static_cast<const char *>(buf), header.length);
    }
    return writeBlob(openInode(file), blob);
  });
}
