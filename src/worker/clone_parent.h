// Finding the parent of a clone that is made again.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "run/run_handles.h"

// A path of the clone parent that had inode number `parent` in the snapshot: in the active fileset,
// under the number that it has now, with `snapId` 0; else in the snapshot with that id. Failures are
// traced; their rc is -1. What was found is remembered for the next clone of the same parent. `file`
// receives the parent itself: a path can mean something else by then.
Result getParentPath(uint64_t parent, uint32_t snapId, std::string *path, Inode *file);
