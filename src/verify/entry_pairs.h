// The entries of two directories, paired by name.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "kest.h"

struct Entry {
  uint64_t ino = 0;
  uint32_t mode = 0;  // the type alone, as in st_mode
  bool junction =
      false;  // a nested fileset; never of the snapshot, where it could not be restored from
};

struct EntryPair {
  std::optional<Entry> active, snapshot;
};
using EntryPairs = std::map<std::string, EntryPair>;

// Adds what a tree holds under inode `ino`, as one side. What belongs to nobody's restore is not there.
// 0 or an errno.
int addListing(kest_fssnap_handle_t *tree, uint64_t ino, EntryPairs *pairs);

// Adds what only one of the two directories with this number holds, by the difference scan. 0 or an
// errno.
int addChangedEntries(uint64_t ino, EntryPairs *pairs);

// Adds what both of these directories hold and what is different itself or leads to something that is.
// After addChangedEntries. 0 or an errno.
int addCommonEntries(uint64_t ino, EntryPairs *pairs);
