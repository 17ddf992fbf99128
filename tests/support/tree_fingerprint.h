// tree_fingerprint.h: reads everything that a restore must bring back from a tree, and compares two
// such readings. Uses only plain system calls and changes no access time.
//
// Compared: names, types, modes (07777), owner, group, size, data, hole map (4 KiB blocks; preallocated
// blocks count as holes), link targets, device numbers, all extended attributes including ACLs,
// modification times in nanoseconds, the inode flags that users can set (but not "no compression" if
// the kernel may have set it), hard-link groups and link counts, and clones: parents, depths, whose
// clone a file is, and shared blocks. Not compared: inode numbers and change, creation and access
// times. These are recorded for tests which demand that an object survived or was left alone.
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
  uint64_t dataHash = 0;                      // of the contents; a hole equals zeros
  BlockRanges data;                           // ranges that are no holes
  std::string target;                         // of a symbolic link
  std::map<std::string, std::string> xattrs;  // without clone attributes
  std::optional<ClonePrint> clone;
  unsigned flags = 0;              // FS_*_FL of files and directories
  PlacedBlocks blocks;             // not compared
  std::vector<std::string> group;  // sorted names of a file with several names; else empty
  bool nested = false;             // a nested subvolume, or its stub; not entered

  ino_t inode = 0;
  ino_t parent = 0;  // inode number of the folder that holds this name
  timespec ctime{};
  timespec birth{};
};

struct FingerprintOptions {
  // Skips names directly below the root that begin with one of these.
  std::vector<std::string> excludePrefixes;
  bool ignoreNested = false;  // skip nested subvolumes
};

struct TreePrint {
  std::map<std::string, ObjectPrint> objects;  // by path below the root; "" is the root
};

// Throws std::system_error if an object cannot be read.
TreePrint fingerprint(const std::string &root, const FingerprintOptions &options = {});

// Returns a readable line for each difference, such as "mtime of a/b: want 12.000000001, have
// 13.000000000"; empty if the trees are equal.
std::vector<std::string> compare(const TreePrint &want, const TreePrint &have);

// Maps the path of everything in the tree to its inode number.
std::map<std::string, ino_t> inodes(const TreePrint &tree);

// Returns a path in the form for messages: control characters, quotes and bytes above 126 as \xNN.
std::string shown(const std::string &path);
// Joins at most `most` lines for a test's message.
std::string joined(const std::vector<std::string> &lines, size_t most = 40);

}  // namespace testsupport
