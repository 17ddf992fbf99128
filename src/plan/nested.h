// Handles nested filesets that the walks find in the active fileset. Master only.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"

// Handles the nested fileset `id` at `path`, a place where the snapshot does not have it. If the
// snapshot has it elsewhere, moves it aside until the end of the run; otherwise unlinks it. rc of a
// failure is an errno or -1.
Result settleNested(const std::string &path, uint64_t id);

// Moves home the nested filesets that settleNested moved aside, and lists the directories that this
// changes. Unlinks one whose place is taken. Call it when every directory is at its place. Failures
// print a message; rc is an errno or -1.
Result bringNestedHome();
