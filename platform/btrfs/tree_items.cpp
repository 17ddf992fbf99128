#include "btrfs/tree_items.h"

#include <dirent.h>
#include <endian.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace kest {

namespace {

constexpr uint64_t kLongestFile = INT64_MAX;
constexpr size_t kLongestName = 255;

TreeTime decodeTime(const btrfs_timespec &time) {
  return {static_cast<int64_t>(le64toh(time.sec)), le32toh(time.nsec)};
}

uint8_t direntType(uint8_t type) {
  static constexpr std::array<uint8_t, BTRFS_FT_XATTR> kTypes = {DT_UNKNOWN, DT_REG,  DT_DIR,  DT_CHR,
                                                                 DT_BLK,     DT_FIFO, DT_SOCK, DT_LNK};
  return type < kTypes.size() ? kTypes[type] : static_cast<uint8_t>(DT_UNKNOWN);
}

// Calls visit(item) for every item of `ino` with a type in [first, last]. 1 or -errno.
template <typename Visit>
int forEachItem(TreeReader &tree, uint64_t ino, uint32_t first, uint32_t last, Visit visit) {
  TreeKey key{ino, first, 0};
  for (;;) {
    const TreeItem *item;
    int rc = tree.at(key, &item);
    if (rc < 0) return rc;
    if (rc == 0 || item->key.objectid != ino || item->key.type > last) return 1;
    if (!visit(*item)) return -EUCLEAN;
    key = item->key.next();
  }
}

// Visits names and values in an XATTR_ITEM, DIR_ITEM or DIR_INDEX, which consists of one or more
// elements. Returns false for a damaged item.
template <typename Visit>
bool forEachDirItem(const TreeItem &item, Visit visit) {
  const uint8_t *at = item.data;
  size_t left = item.size;
  while (left > 0) {
    btrfs_dir_item head;
    if (left < sizeof head) return false;
    memcpy(&head, at, sizeof head);
    size_t name_size = le16toh(head.name_len), data_size = le16toh(head.data_len);
    if (left < sizeof head + name_size + data_size) return false;
    const char *name = reinterpret_cast<const char *>(at + sizeof head);
    visit(head, std::string_view(name, name_size), std::string_view(name + name_size, data_size));
    at += sizeof head + name_size + data_size;
    left -= sizeof head + name_size + data_size;
  }
  return true;
}

// Visits parents and names in an INODE_REF or INODE_EXTREF. Returns false for a damaged item.
template <typename Visit>
bool forEachName(const TreeItem &item, Visit visit) {
  const uint8_t *at = item.data;
  size_t left = item.size;
  while (left > 0) {
    uint64_t parent = item.key.offset;
    size_t head_size, name_size;
    if (item.key.type == BTRFS_INODE_REF_KEY) {
      btrfs_inode_ref head;
      head_size = sizeof head;
      if (left < head_size) return false;
      memcpy(&head, at, head_size);
      name_size = le16toh(head.name_len);
    } else {
      btrfs_inode_extref head;
      head_size = sizeof head;
      if (left < head_size) return false;
      memcpy(&head, at, head_size);
      name_size = le16toh(head.name_len);
      parent = le64toh(head.parent_objectid);
    }
    if (left < head_size + name_size) return false;
    visit(parent, std::string_view(reinterpret_cast<const char *>(at + head_size), name_size));
    at += head_size + name_size;
    left -= head_size + name_size;
  }
  return true;
}

// Returns true if a directory can contain this name. Any other name would lead out of it or to another
// entry.
bool isEntryName(std::string_view name) {
  return !name.empty() && name.size() <= kLongestName && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

}  // namespace

bool decodeInode(const TreeItem &item, InodeItem *inode) {
  btrfs_inode_item raw;
  if (item.size < sizeof raw) return false;
  memcpy(&raw, item.data, sizeof raw);
  inode->generation = le64toh(raw.generation);
  inode->transid = le64toh(raw.transid);
  inode->size = le64toh(raw.size);
  inode->nbytes = le64toh(raw.nbytes);
  inode->nlink = le32toh(raw.nlink);
  inode->uid = le32toh(raw.uid);
  inode->gid = le32toh(raw.gid);
  inode->mode = le32toh(raw.mode);
  inode->rdev = le64toh(raw.rdev);
  inode->flags = le64toh(raw.flags);
  inode->sequence = le64toh(raw.sequence);
  inode->atime = decodeTime(raw.atime);
  inode->ctime = decodeTime(raw.ctime);
  inode->mtime = decodeTime(raw.mtime);
  inode->otime = decodeTime(raw.otime);
  return true;
}

bool decodeDirEntries(const TreeItem &item, std::vector<DirEntryItem> *entries) {
  bool named = true;
  auto add = [&](const btrfs_dir_item &head, std::string_view name, std::string_view) {
    named = named && isEntryName(name);
    DirEntryItem &entry = entries->emplace_back();
    entry.index = item.key.offset;
    entry.target = le64toh(head.location.objectid);
    entry.junction = head.location.type == BTRFS_ROOT_ITEM_KEY;
    entry.type = direntType(head.type);
    entry.transid = le64toh(head.transid);
    entry.name = name;
  };
  return forEachDirItem(item, add) && named;
}

bool decodeExtent(const TreeItem &item, ExtentItem *extent) {
  btrfs_file_extent_item raw;
  constexpr size_t kInlineHead = offsetof(btrfs_file_extent_item, disk_bytenr);
  if (item.size < kInlineHead) return false;
  memset(&raw, 0, sizeof raw);
  memcpy(&raw, item.data, std::min<size_t>(item.size, sizeof raw));
  *extent = {};
  extent->start = item.key.offset;
  extent->compression = raw.compression;
  if (raw.type == BTRFS_FILE_EXTENT_INLINE) {
    extent->is_inline = true;
    extent->length = le64toh(raw.ram_bytes);
    if (extent->length > kLongestFile) return false;
    extent->inline_data.assign(reinterpret_cast<const char *>(item.data) + kInlineHead,
                               item.size - kInlineHead);
    return true;
  }
  if (item.size < sizeof raw) return false;
  extent->length = le64toh(raw.num_bytes);
  // Lengths are in whole blocks, so the last block of the longest file ends after kLongestFile.
  if (extent->start > kLongestFile || extent->length > kLongestFile + 1 - extent->start) return false;
  extent->disk = le64toh(raw.disk_bytenr);
  extent->shift = le64toh(raw.offset) - item.key.offset;
  // The offset field of a hole is not reliable. Preallocated space reads as zeros.
  extent->hole = extent->disk == 0 || raw.type == BTRFS_FILE_EXTENT_PREALLOC;
  return true;
}

int readInode(TreeReader &tree, uint64_t ino, InodeItem *inode) {
  const TreeItem *item;
  TreeKey key{ino, BTRFS_INODE_ITEM_KEY, 0};
  int rc = tree.at(key, &item);
  if (rc <= 0) return rc;
  if (item->key != key) return 0;
  return decodeInode(*item, inode) ? 1 : -EUCLEAN;
}

int visitNames(TreeReader &tree, uint64_t ino, const NameRefVisitor &visit) {
  return forEachItem(tree, ino, BTRFS_INODE_REF_KEY, BTRFS_INODE_EXTREF_KEY,
                     [&](const TreeItem &item) { return forEachName(item, visit); });
}

int visitNamesIn(TreeReader &tree, uint64_t ino, uint64_t dir, const NameRefVisitor &visit) {
  const TreeKey key{ino, BTRFS_INODE_REF_KEY, dir};
  const TreeItem *item;
  int rc = tree.at(key, &item);
  if (rc <= 0) return rc;
  if (item->key == key && !forEachName(*item, visit)) return -EUCLEAN;
  // Names that do not fit into that item are in INODE_EXTREF items.
  return forEachItem(tree, ino, BTRFS_INODE_EXTREF_KEY, BTRFS_INODE_EXTREF_KEY,
                     [&](const TreeItem &one) {
                       return forEachName(one, [&](uint64_t parent, std::string_view name) {
                         if (parent == dir) visit(parent, name);
                       });
                     });
}

uint64_t findCachedName(const TreeReader &tree, uint64_t dir, std::string_view name) {
  for (const TreeItem &item : tree.cached()) {
    if (item.key.type != BTRFS_INODE_REF_KEY || item.key.offset != dir) continue;
    bool found = false;
    forEachName(item, [&](uint64_t, std::string_view one) { found = found || one == name; });
    if (found) return item.key.objectid;
  }
  return 0;
}

int readNames(TreeReader &tree, uint64_t ino, std::vector<NameRef> *names) {
  names->clear();
  int rc = visitNames(tree, ino, [&](uint64_t parent, std::string_view name) {
    names->push_back({parent, std::string(name)});
  });
  std::sort(names->begin(), names->end());
  return rc;
}

int readXattrs(TreeReader &tree, uint64_t ino, std::vector<XattrItem> *xattrs) {
  xattrs->clear();
  int rc =
      forEachItem(tree, ino, BTRFS_XATTR_ITEM_KEY, BTRFS_XATTR_ITEM_KEY, [&](const TreeItem &item) {
        return forEachDirItem(
            item, [&](const btrfs_dir_item &, std::string_view name, std::string_view value) {
              xattrs->push_back({std::string(name), std::string(value)});
            });
      });
  std::sort(xattrs->begin(), xattrs->end());
  return rc;
}

int hasXattr(TreeReader &tree, uint64_t ino, std::string_view name) {
  const TreeKey key{ino, BTRFS_XATTR_ITEM_KEY, nameHash(name)};
  const TreeItem *item;
  int rc = tree.at(key, &item);
  if (rc <= 0) return rc;
  bool found = false;
  if (item->key == key && !forEachDirItem(*item, [&](const btrfs_dir_item &, std::string_view one,
                                                     std::string_view) { found |= one == name; }))
    return -EUCLEAN;
  return found;
}

int findEntry(TreeReader &tree, uint64_t dir, std::string_view name, DirEntryItem *entry) {
  TreeKey key{dir, BTRFS_DIR_ITEM_KEY, nameHash(name)};
  const TreeItem *item;
  int rc = tree.at(key, &item);
  if (rc <= 0) return rc;
  if (item->key != key) return 0;
  std::vector<DirEntryItem> entries;
  if (!decodeDirEntries(*item, &entries)) return -EUCLEAN;
  for (DirEntryItem &one : entries) {
    if (one.name == name) {
      *entry = std::move(one);
      entry->index = 0;
      return 1;
    }
  }
  return 0;
}

int nextHash(TreeReader &tree, uint64_t dir, uint64_t hash, std::vector<DirEntryItem> *entries) {
  entries->clear();
  const TreeItem *item;
  int rc = tree.at({dir, BTRFS_DIR_ITEM_KEY, hash}, &item);
  if (rc <= 0) return rc;
  if (item->key.objectid != dir || item->key.type != BTRFS_DIR_ITEM_KEY) return 0;
  return decodeDirEntries(*item, entries) && !entries->empty() ? 1 : -EUCLEAN;
}

int nextEntry(TreeReader &tree, uint64_t dir, uint64_t index, DirEntryItem *entry) {
  const TreeItem *item;
  int rc = tree.at({dir, BTRFS_DIR_INDEX_KEY, index}, &item);
  if (rc <= 0) return rc;
  if (item->key.objectid != dir || item->key.type != BTRFS_DIR_INDEX_KEY) return 0;
  std::vector<DirEntryItem> entries;
  if (!decodeDirEntries(*item, &entries) || entries.size() != 1) return -EUCLEAN;
  *entry = std::move(entries.front());
  return 1;
}

int nextExtent(TreeReader &tree, uint64_t ino, uint64_t start, ExtentItem *extent) {
  const TreeItem *item;
  int rc = tree.at({ino, BTRFS_EXTENT_DATA_KEY, start}, &item);
  if (rc <= 0) return rc;
  if (item->key.objectid != ino || item->key.type != BTRFS_EXTENT_DATA_KEY) return 0;
  return decodeExtent(*item, extent) ? 1 : -EUCLEAN;
}

uint32_t nameHash(std::string_view name) {
  static const std::array<uint32_t, 256> kTable = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t crc = i;
      for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) ? 0x82f63b78u : 0);
      table[i] = crc;
    }
    return table;
  }();
  uint32_t crc = 0xfffffffeu;
  for (unsigned char byte : name) crc = (crc >> 8) ^ kTable[(crc ^ byte) & 0xff];
  return crc;
}

}  // namespace kest
