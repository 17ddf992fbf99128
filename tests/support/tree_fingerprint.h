// tree_fingerprint.h: all that a restore must bring back, read afresh from a tree, and the differences
// between two such readings. Plain system calls only; reading changes no access time.
//
// Compared: names, types, modes (07777), owner, group, size, data, hole map (4 KiB blocks, preallocated
// counts as hole), link targets, device numbers, all extended attributes (ACLs included), modification
// times in nanoseconds, the inode flags that a user can set (but "no compression" where the kernel may
// have set it), the groups of hard links and link counts, and clones: parents, depths, whose clone a
// file is, shared blocks. Not compared: inode numbers, change, creation and access times; they are
// recorded for tests that demand that an object survived or was left alone.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/clone_print.h"

namespace testsupport {

struct ObjectPrint {
  mode_t mode = 0;  // with the type
  uid_t uid = 0;
  gid_t gid = 0;
  uint64_t size = 0;  // 0 for directories
  uint64_t links = 0;
  dev_t device = 0;
  timespec mtime{};
  uint64_t dataHash = 0;                      // of the contents, whatever is hole and what is zeros
  BlockRanges data;                           // that is not hole
  std::string target;                         // of a symbolic link
  std::map<std::string, std::string> xattrs;  // but the clone attributes
  std::optional<ClonePrint> clone;
  unsigned flags = 0;              // FS_*_FL; files, directories
  PlacedBlocks blocks;             // recorded only
  std::vector<std::string> group;  // sorted names of a file with several, else empty
  bool nested = false;             // a nested subvolume, or the stub of one; not entered

  ino_t inode = 0;
  ino_t parent = 0;  // inode of the folder that holds this name
  timespec ctime{};
  timespec birth{};
};

struct FingerprintOptions {
  // Names directly below the root that begin with one of these are left out.
  std::vector<std::string> excludePrefixes;
  bool ignoreNested = false;  // leave nested subvolumes out
};

struct TreePrint {
  std::map<std::string, ObjectPrint> objects;  // by path below the root; the root itself is ""
};

// Throws std::system_error where an object cannot be read.
TreePrint fingerprint(const std::string &root, const FingerprintOptions &options = {});

// One readable line a difference, for example "mtime of a/b: want 12.000000001, have 13.000000000";
// empty where the trees are equal.
std::vector<std::string> compare(const TreePrint &want, const TreePrint &have);

// Path to inode number of everything in the tree.
std::map<std::string, ino_t> inodes(const TreePrint &tree);

// A path as it is shown in messages: control characters, quotes and bytes above 126 as \xNN.
std::string shown(const std::string &path);
// Lines joined, at most `most` of them, for a test's message.
std::string joined(const std::vector<std::string> &lines, size_t most = 40);

}  // namespace testsupport
