// Finds the parent of a clone that is made again.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "run/run_handles.h"

// Finds a path of the clone parent that has inode number `parent` in the snapshot. With `snapId` 0 it
// searches the active fileset, under the parent's present number; else the snapshot with that id.
// `file` receives the open parent, because the path can soon lead to another object. Remembers the path
// for the next clone of the same parent. Failures are traced; rc is -1.
Result getParentPath(uint64_t parent, uint32_t snapId, std::string *path, Inode *file);
