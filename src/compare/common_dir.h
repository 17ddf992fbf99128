// One common directory while it is walked: shared by its two reads.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>

struct CommonDir {
  std::string path;  // names are appended for the time that an entry is handled
  uint64_t ino = 0;
  // Non-directories of this pass's range under names that only the active directory has.
  std::unordered_set<std::string> newNames;
  int code = 0;  // the step that failed, for the trace line
};

// First read: entries in which snapshot and active directory differ. 0, or rc with dir.code set.
int readChangedEntries(CommonDir &dir);

// Second read: every entry of the active directory, by the flags of its difference item. As above.
int readFullListing(CommonDir &dir);
