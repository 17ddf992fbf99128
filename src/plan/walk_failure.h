// Remembers the object at which a walk failed, for the message. Master only.
#pragma once

#include <string>

#include "base/result.h"

// Notes the path of a failure and returns `result`. A failure passes through here once on every level
// of the walk; the first call names the object itself.
Result failedAt(const std::string &path, const Result &result);

// Notes that a message has reported the failure already.
void walkFailureTold();

// Prints the failure with the path that the object had before the walk, unless it has been reported.
// `root` is used for a failure without a path.
void tellWalkFailure(const std::string &root, const Result &result);
