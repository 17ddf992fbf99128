// Collects which names are hard links to one inode, and compares that between both trees.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "fsetcompare/report.h"

class LinkGroups {
 public:
  // Takes two inodes that one name leads to. Returns true for the first name of this pair, for which
  // alone the caller needs to compare the inodes themselves.
  bool meet(const struct stat &active, const struct stat &snapshot);

  // Reports each inode of the snapshot whose names are not exactly those of one inode of the fileset,
  // at its first name.
  void report(Report *report) const;

 private:
  struct Group {
    std::vector<uint64_t> partners;  // inodes of the fileset under the group's names
    bool other_count = false;
  };
  std::unordered_map<uint64_t, Group> groups_;       // key: inode of the snapshot
  std::unordered_map<uint64_t, uint64_t> partners_;  // fileset inode -> first snapshot inode met
  std::vector<uint64_t> torn_;  // snapshot inodes that share an inode of the fileset with another
};
