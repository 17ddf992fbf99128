// The entries of two directories, paired by name.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "base/result.h"
#include "kest.h"

struct Entry {
  uint64_t ino = 0;
  uint32_t mode = 0;      // the type alone, as in st_mode
  bool junction = false;  // a nested fileset, whose number `ino` is then; never of the snapshot
};

struct EntryPair {
  std::optional<Entry> active, snapshot;
  std::optional<uint64_t> nested;  // the number of the nested fileset that the snapshot has here
};
using EntryPairs = std::map<std::string, EntryPair>;

// rc of a failure is the errno.

// Adds what a tree holds under inode `ino`, as one side, but for entries that a restore leaves alone.
Result addListing(kest_fssnap_handle_t *tree, uint64_t ino, EntryPairs *pairs);

// Adds what only one of the two directories with this number holds, by the difference scan.
Result addChangedEntries(uint64_t ino, EntryPairs *pairs);

// Adds what both of these directories hold and what is different itself or leads to a difference. After
// addChangedEntries.
Result addCommonEntries(uint64_t ino, EntryPairs *pairs);
