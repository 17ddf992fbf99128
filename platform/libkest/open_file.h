// What is behind a kest_ifile_t: an open inode, and what its calls keep in between.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "filesystem/entry_list.h"
#include "filesystem/file_system.h"
#include "kest.h"
#include "libkest/kept_capability.h"

namespace kest {

// Ranges of a file that differ from the snapshot's, as they were when [from, to) was compared.
struct ChangedRanges {
  const kest_iscan *scan = nullptr;  // NULL: nothing compared yet
  uint64_t from = 0, to = 0;
  std::vector<FileRange> ranges;
};

struct OpenFile : kest_ifile {
  std::unique_ptr<Inode> inode;
  bool listed = false;  // a directory whose listing is in `entries`
  EntryList entries;
  bool compared = false;  // a directory whose changed entries are in `changed`
  EntryList changed;
  std::unique_ptr<EntryStream> leads;  // of a directory, once it is asked for
  ChangedRanges changed_ranges;
  KeptCapability capability;
};

// The open inode behind the pointer that the C interface hands out; NULL where it is NULL or closed.
OpenFile *openFile(kest_ifile_t *file);
// Calls that take a constant one may open its data all the same, which no caller sees.
inline OpenFile *openFile(const kest_ifile_t *file) {
  return openFile(const_cast<kest_ifile_t *>(file));
}

// Makes an open inode the C interface's.
kest_ifile_t *handOut(std::unique_ptr<Inode> inode);

// Callers rely on these places.
static_assert(offsetof(kest_ifile, if_gen16) == 16 && offsetof(kest_ifile, if_mode) == 36);

}  // namespace kest
