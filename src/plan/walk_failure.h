// The object at which a walk failed. Master only.
#pragma once

#include <string>

#include "base/result.h"

// A failure passes on its way: the first path that is given belongs to it. Returns `result`.
Result failedAt(const std::string &path, const Result &result);

// A message has told the failure already.
void walkFailureTold();

// Tells it, with the path at which the object stood before the walk, unless that has been done. `root`
// stands for a failure that no path belongs to.
void tellWalkFailure(const std::string &root, const Result &result);
