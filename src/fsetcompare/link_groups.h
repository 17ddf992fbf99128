// Which names are the same inode, and whether they are the same names in both trees.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "fsetcompare/report.h"

class LinkGroups {
 public:
  // Two inodes that one name leads to. True for the first name of this pair, the only one for which the
  // inodes themselves need to be compared.
  bool meet(const struct stat &active, const struct stat &snapshot);

  // One line for every inode of the snapshot whose names are not those of one inode of the fileset, at
  // the first of its names.
  void report(Report *report) const;

 private:
  struct Group {
    std::vector<uint64_t> partners;  // inodes of the fileset under its names
    bool other_count = false;
  };
  std::unordered_map<uint64_t, Group> groups_;       // by inode of the snapshot
  std::unordered_map<uint64_t, uint64_t> partners_;  // of inodes of the fileset: the first one met
  std::vector<uint64_t> torn_;                       // share an inode of the fileset with another
};
