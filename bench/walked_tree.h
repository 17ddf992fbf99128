// walked_tree.h: all names and inodes of a tree, by a plain walk.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace bench {

struct WalkedObject {
  uint64_t inode, size, device;
  uint32_t mode, uid, gid;
  statx_timestamp mtime, ctime, birth;
  uint32_t firstName;  // in WalkedTree::names
};

struct WalkedName {
  std::string name;
  uint32_t parent, object;  // in WalkedTree::objects
  uint32_t next;            // another name of the same object, or kNone
};

struct WalkedTree {
  std::string root;
  std::vector<WalkedObject> objects;  // the first is the root; a directory stands before what is in it
  std::vector<WalkedName> names;      // the first is that of the root, which is empty
  std::unordered_map<uint64_t, uint32_t> byInode;

  // Below the root; "." for the root itself.
  std::string path(uint32_t object) const;
  uint32_t depth(uint32_t object) const;
};

// Leaves out nested subvolumes, the directories that stand for them in a snapshot, and .snapshots at
// the top. Throws std::system_error.
WalkedTree walkTree(const std::string &root);

std::map<std::string, std::string> readXattrs(const std::string &path);

// Where each block of 4 KiB of a file lies on the disk: equal numbers are equal blocks, 0 is a hole. Of
// what is stored otherwise (inline, encoded) every block has the number kUnknownBlock.
inline constexpr uint64_t kUnknownBlock = UINT64_MAX, kBlock = 4096;
std::vector<uint64_t> blockMap(const std::string &path, uint64_t size);

}  // namespace bench
