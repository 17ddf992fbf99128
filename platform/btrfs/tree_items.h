// Decodes the items of a file-system tree and finds them.
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
  uint64_t generation = 0;  // transaction that created it
  uint64_t transid = 0;     // last transaction that wrote it; access times count, too
  uint64_t size = 0;
  uint64_t nbytes = 0;  // bytes it uses, without holes
  uint32_t nlink = 0;
  uint32_t uid = 0, gid = 0;
  uint32_t mode = 0;      // st_mode encoding
  uint64_t rdev = 0;      // major << 20 | minor
  uint64_t flags = 0;     // BTRFS_INODE_*
  uint64_t sequence = 0;  // changes with the inode, but not always within one clock tick
  TreeTime atime, ctime, mtime, otime;
};

// One directory entry (DIR_INDEX item). The target of a junction is a subvolume id.
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

// The contents of one range of a file.
struct ExtentItem {
  uint64_t start = 0, length = 0;  // bytes in the file
  bool hole = false;               // no extent on disk, or only a preallocated one
  bool is_inline = false;
  uint8_t compression = 0;
  uint64_t disk = 0;        // disk_bytenr
  uint64_t shift = 0;       // offset into the extent minus file offset (modulo 2^64)
  std::string inline_data;  // raw; may be compressed
};

// The decoders return false for an item that its key contradicts: it is too short, or contains a name
// that no directory can hold, or a range beyond the largest file.
bool decodeInode(const TreeItem &item, InodeItem *inode);
// Decodes a DIR_INDEX, or a DIR_ITEM, in which several names can share one hash.
bool decodeDirEntries(const TreeItem &item, std::vector<DirEntryItem> *entries);
bool decodeExtent(const TreeItem &item, ExtentItem *extent);

// All functions return 1 if they found (or did) it, 0 if there is no such inode or entry, or -errno.
int readInode(TreeReader &tree, uint64_t ino, InodeItem *inode);
// Reads all names of the inode, sorted.
int readNames(TreeReader &tree, uint64_t ino, std::vector<NameRef> *names);
// Visits all names in any order. `visit` must not read from `tree`.
int visitNames(TreeReader &tree, uint64_t ino, const NameRefVisitor &visit);
// Visits the names of the inode in directory `dir`.
int visitNamesIn(TreeReader &tree, uint64_t ino, uint64_t dir, const NameRefVisitor &visit);
// Searches the name `name` in directory `dir` among the items that `tree` has cached. Returns the
// number of its inode, or 0 if it is not among them.
uint64_t findCachedName(const TreeReader &tree, uint64_t dir, std::string_view name);
// Reads all extended attributes of the inode, including ACLs and btrfs properties, sorted.
int readXattrs(TreeReader &tree, uint64_t ino, std::vector<XattrItem> *xattrs);
// Whether the inode has the extended attribute `name`.
int hasXattr(TreeReader &tree, uint64_t ino, std::string_view name);
// Finds the entry `name` of directory `dir` by its hash. Does not set `index`.
int findEntry(TreeReader &tree, uint64_t dir, std::string_view name, DirEntryItem *entry);
// Reads the entries of directory `dir` with the next hash at or above `hash`; that hash is their index.
int nextHash(TreeReader &tree, uint64_t dir, uint64_t hash, std::vector<DirEntryItem> *entries);
inline constexpr uint32_t kDirectoryItems = 50;  // first_items for reading whole directories
// Reads the next entry of directory `dir` with an index of at least `index`.
int nextEntry(TreeReader &tree, uint64_t dir, uint64_t index, DirEntryItem *entry);
// Reads the next extent item of the file that begins at or after `start`.
int nextExtent(TreeReader &tree, uint64_t ino, uint64_t start, ExtentItem *extent);

// Returns true if both are the same inode of two related subvolumes. Two writable relatives can give
// one number, even with equal generations, to different files; their creation times differ.
inline bool sameIdentity(const InodeItem &a, const InodeItem &b) {
  return a.generation == b.generation && a.otime == b.otime && ((a.mode ^ b.mode) & 0170000) == 0;
}

// Returns the hash under which a directory stores a name.
uint32_t nameHash(std::string_view name);

}  // namespace kest
