// One common directory while it is walked: shared by its two reads.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>

#include "run/run_handles.h"

struct CommonDir {
  std::string path;  // names are appended for the time that an entry is handled
  uint64_t ino = 0;
  Inode active;  // open
  // Non-directories of this pass's range under names that only the active directory has.
  std::unordered_set<std::string> newNames;
  int code = 0;  // the step that failed, for the trace line
};

// What the walks have looked at in this pass.
struct WalkCount {
  long long directories = 0, entries = 0;
};
extern WalkCount walkCount;

// First read: entries in which snapshot and active directory differ. 0, or rc with dir.code set.
int readChangedEntries(CommonDir &dir);

// Second read: the entries of the active directory that differ or lead to a change, by the flags of
// their difference items. As above.
int readLeadingEntries(CommonDir &dir);
