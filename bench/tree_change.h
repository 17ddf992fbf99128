// tree_change.h: the changes that the benchmark makes after a snapshot.
#pragma once

#include <cstdint>
#include <string>

#include "tree_files.h"

namespace bench {

struct Changed {
  Base base;
  uint64_t files;     // number of files in the tree
  uint64_t changes;   // how many files or ranges to change, evenly spread
  uint64_t bigBytes;  // size for kBig
};

// `change` is mixed, attributes, delete, dirmove, links, new, ranges or nothing. Returns the paths of
// files in the snapshot that have other contents or attributes, or do not exist, in the changed tree,
// each with a NUL at the end. Throws std::system_error, or std::runtime_error for an unknown change.
std::string changeTree(const std::string &change, const Changed &tree);

}  // namespace bench
