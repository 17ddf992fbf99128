// What the items of a file-system tree say.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "btrfs/tree_search.h"
#include "diff/entry_pairs.h"

namespace kest {

struct TreeTime {
  int64_t sec = 0;
  uint32_t nsec = 0;
  bool operator==(const TreeTime &) const = default;
};

struct InodeItem {
  uint64_t generation = 0;  // creation transaction
  uint64_t transid = 0;     // last transaction that wrote it; moves with access times, too
  uint64_t size = 0;
  uint64_t nbytes = 0;  // that it takes, holes apart
  uint32_t nlink = 0;
  uint32_t uid = 0, gid = 0;
  uint32_t mode = 0;      // st_mode encoding
  uint64_t rdev = 0;      // major << 20 | minor
  uint64_t flags = 0;     // BTRFS_INODE_*
  uint64_t sequence = 0;  // moves with a real change, but not always within one tick of the clock
  TreeTime atime, ctime, mtime, otime;
};

// One directory entry (a DIR_INDEX item). The target of a junction is a subvolume id.
struct DirEntryItem : DirEntry {
  uint64_t index = 0;    // position in the directory
  uint64_t transid = 0;  // transaction that made the entry
};

struct NameRef {
  uint64_t parent = 0;
  std::string name;
  auto operator<=>(const NameRef &) const = default;
};
using NameRefVisitor = std::function<void(uint64_t parent, std::string_view name)>;

struct XattrItem {
  std::string name, value;
  auto operator<=>(const XattrItem &) const = default;
};

// What a range of a file holds.
struct ExtentItem {
  uint64_t start = 0, length = 0;  // in the file, bytes
  bool hole = false;               // nothing on disk, or preallocated only
  bool is_inline = false;
  uint8_t compression = 0;
  uint64_t disk = 0;        // disk_bytenr
  uint64_t shift = 0;       // offset into the extent less file offset (modulo 2^64)
  std::string inline_data;  // raw, maybe compressed
};

// The decoders return false for an item that cannot be what its key says: too short, a name that no
// directory can hold, a range beyond the largest file.
bool decodeInode(const TreeItem &item, InodeItem *inode);
// DIR_INDEX, or one element of a DIR_ITEM (several names can share one hash).
bool decodeDirEntries(const TreeItem &item, std::vector<DirEntryItem> *entries);
bool decodeExtent(const TreeItem &item, ExtentItem *extent);

// All answers: 1 found (or done), 0 no such inode or entry, -errno.
int readInode(TreeReader &tree, uint64_t ino, InodeItem *inode);
// Every name of the inode, sorted.
int readNames(TreeReader &tree, uint64_t ino, std::vector<NameRef> *names);
// The same, one after the other in any order; `tree` must not be read meanwhile.
int visitNames(TreeReader &tree, uint64_t ino, const NameRefVisitor &visit);
// The names that the inode has in directory `dir`, one after the other.
int visitNamesIn(TreeReader &tree, uint64_t ino, uint64_t dir, const NameRefVisitor &visit);
// Every extended attribute of the inode, ACLs and btrfs properties included, sorted.
int readXattrs(TreeReader &tree, uint64_t ino, std::vector<XattrItem> *xattrs);
// Whether the inode has the extended attribute `name`.
int hasXattr(TreeReader &tree, uint64_t ino, std::string_view name);
// The entry `name` of directory `dir`, by its hash; `index` is not set.
int findEntry(TreeReader &tree, uint64_t dir, std::string_view name, DirEntryItem *entry);
// The entries of directory `dir` with the next hash that is at least `hash`, which is their index.
int nextHash(TreeReader &tree, uint64_t dir, uint64_t hash, std::vector<DirEntryItem> *entries);
inline constexpr uint32_t kDirectoryItems = 50;  // first_items of a reader of whole directories
// The next entry of directory `dir` with an index of at least `index`.
int nextEntry(TreeReader &tree, uint64_t dir, uint64_t index, DirEntryItem *entry);
// The next extent item of the file that begins at or after `start`.
int nextExtent(TreeReader &tree, uint64_t ino, uint64_t start, ExtentItem *extent);

// True when both are the same inode of two related subvolumes. Two writable relatives can give one
// number to different files, even in one generation; the creation time tells them apart.
inline bool sameIdentity(const InodeItem &a, const InodeItem &b) {
  return a.generation == b.generation && a.otime == b.otime && ((a.mode ^ b.mode) & 0170000) == 0;
}

// The hash under which a directory keeps a name.
uint32_t nameHash(std::string_view name);

}  // namespace kest
