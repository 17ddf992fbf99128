// Nested filesets that the walks meet in the active fileset. Master only.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"

// The nested fileset `id` at `path` does not stand where the snapshot has it. One that the snapshot has
// at another place is moved aside, to be moved home in the end; any other one is unlinked. rc of a
// failure is an errno or -1.
Result settleNested(const std::string &path, uint64_t id);

// Moves home what was moved aside, once every directory is at its place, and lists the directories that
// this changes. One whose place is taken is unlinked. A failure has printed its message; rc is an errno
// or -1.
Result bringNestedHome();
