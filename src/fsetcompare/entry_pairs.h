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
  uint32_t mode = 0;      // only the type bits, as in st_mode
  bool junction = false;  // a nested fileset, with its id as `ino`; never set for the snapshot
};

struct EntryPair {
  std::optional<Entry> active, snapshot;
  std::optional<uint64_t> nested;  // id of the nested fileset that the snapshot has under this name
};
using EntryPairs = std::map<std::string, EntryPair>;

// In all three, rc of a failure is the errno.

// Adds one side: the entries of inode `ino` in a tree, without those that a restore leaves alone.
Result addListing(kest_fssnap_handle_t *tree, uint64_t ino, EntryPairs *pairs);

// Adds the entries that only one of both directories with this number has, from the difference scan.
Result addChangedEntries(uint64_t ino, EntryPairs *pairs);

// Adds the entries that both directories have and that differ or lead to a difference. Call it after
// addChangedEntries.
Result addCommonEntries(uint64_t ino, EntryPairs *pairs);
