// tree_change.h: what the benchmark does to a tree after its snapshot.
#pragma once

#include <cstdint>
#include <string>

#include "tree_files.h"

namespace bench {

struct Changed {
  Base base;
  uint64_t files;     // of the tree
  uint64_t changes;   // how many of them, or of its ranges, spread evenly
  uint64_t bigBytes;  // of kBig
};

// change: mixed, attributes, delete, dirmove, links, new, ranges, or nothing. Returns the paths that a
// file of the snapshot has there and that have other contents or attributes, or no file, in the changed
// tree. Each ends with a NUL. Throws std::system_error, or std::runtime_error for an unknown change.
std::string changeTree(const std::string &change, const Changed &tree);

}  // namespace bench
