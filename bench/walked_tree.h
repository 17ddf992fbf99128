// walked_tree.h: reads all names and inodes of a tree by walking it.
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
  uint32_t firstName;  // index into WalkedTree::names
};

struct WalkedName {
  std::string name;
  uint32_t parent, object;  // indices into WalkedTree::objects
  uint32_t next;            // index of another name of the object, or kNone
};

struct WalkedTree {
  std::string root;
  std::vector<WalkedObject> objects;  // the root first; each directory before its contents
  std::vector<WalkedName> names;      // the root's empty name first
  std::unordered_map<uint64_t, uint32_t> byInode;

  // Path below the root; "." for the root.
  std::string path(uint32_t object) const;
  uint32_t depth(uint32_t object) const;
};

// Skips nested subvolumes, their stubs in a snapshot, and .snapshots at the top. Throws
// std::system_error.
WalkedTree walkTree(const std::string &root);

std::map<std::string, std::string> readXattrs(const std::string &path);

// Returns the place on disk of every 4 KiB block of a file: equal numbers mean equal blocks, 0 is a
// hole, and kUnknownBlock a block that is stored in another way (inline, encoded).
inline constexpr uint64_t kUnknownBlock = UINT64_MAX, kBlock = 4096;
std::vector<uint64_t> blockMap(const std::string &path, uint64_t size);

}  // namespace bench
