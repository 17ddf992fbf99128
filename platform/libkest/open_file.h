// The object behind a kest_ifile_t: an open inode, and what its calls keep from one to the next.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "filesystem/entry_list.h"
#include "filesystem/file_system.h"
#include "kest.h"
#include "libkest/kept_attributes.h"

namespace kest {

// The ranges of a file that differed from the snapshot's when [from, to) was compared.
struct ChangedRanges {
  const kest_iscan *scan = nullptr;  // NULL: not compared yet
  uint64_t from = 0, to = 0;
  std::vector<FileRange> ranges;
};

struct OpenFile : kest_ifile {
  std::unique_ptr<Inode> inode;
  bool listed = false;  // `entries` holds the listing of this directory
  EntryList entries;
  bool compared = false;  // `changed` holds the changed entries of this directory
  EntryList changed;
  std::unique_ptr<EntryStream> leads;  // for a directory, after the first request
  ChangedRanges changed_ranges;
  KeptCapability capability;
};

// Returns the open inode behind a pointer of the C interface; NULL if it is NULL or closed.
OpenFile *openFile(kest_ifile_t *file);
// A call with a constant inode may still open its data, which the caller cannot notice.
inline OpenFile *openFile(const kest_ifile_t *file) {
  return openFile(const_cast<kest_ifile_t *>(file));
}

// Passes an open inode to the caller of the C interface, who closes it.
kest_ifile_t *handOut(std::unique_ptr<Inode> inode);

// Callers rely on these offsets.
static_assert(offsetof(kest_ifile, if_gen16) == 16 && offsetof(kest_ifile, if_mode) == 36);

}  // namespace kest
