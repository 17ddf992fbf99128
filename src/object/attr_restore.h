// Restores owner, ACL, mode, times and flags of one object.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "object/open_object.h"

// Gives the object at `path` the attributes of its snapshot copy. Does nothing in phases below 3.
// Restores everything for files, links, FIFOs, sockets and devices; for directories only the owner
// before phase 6, and everything in it. Flags come last and end as in the snapshot, set or cleared.
// Leaves an object alone that the snapshot does not hold. The path may lie in a temporary location.
// Failures are traced; rc is -1.
Result restoreAttr(const std::string &path, int32_t phase);

// Like restoreAttr, for the object at `path` that is open as `active`, with `snap` as its snapshot
// copy. Skips attributes that are equal in the facts of both. `data_written` says that data was written
// since the facts were read, which changes the times.
Result restoreAttrOf(const std::string &path, const OpenObject &snap, OpenObject &active, int32_t phase,
                     bool data_written);

// Returns a deliberately wrong modification time. restoreAttr gives it to a clone parent in phase 7,
// until all surviving clones know the parent's new inode number. If a run dies before that, the parent
// differs from the snapshot, so the next run makes it again and finds the clones.
kest_timestruc64_t unsettledTime(const kest_timestruc64_t &mtime);

// Like restoreAttr for the root directory of the fileset, extended attributes included (unless -x).
// Call it once, after the last change in the root directory.
Result restoreRootAttr();
