// What messages say about the walks: where an object was before it was moved aside, because users know
// no temporary locations, and at which object a walk failed. Master only.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"

// Notes that the directory `ino` is moved aside from `path`, which can lie in a temporary location
// itself.
void noteFormerPlace(uint64_t ino, const std::string &path);

// Returns the path of the object at `path` before the walks moved it or a directory above it.
std::string formerPath(const std::string &path);

// Notes the path of a failure and returns `result`. A failure passes through here once on every level
// of the walk; the first call names the object itself.
Result failedAt(const std::string &path, const Result &result);

// Forgets the path of a failure that turned out to be none.
void forgetFailure();

// Notes that a message has reported the failure already.
void walkFailureTold();

// Prints the failure with the path that the object had before the walk, unless it has been reported.
// `root` is used for a failure without a path.
void tellWalkFailure(const std::string &root, const Result &result);
