// Finds the snapshot that the user means.
#pragma once

#include <string>
#include <vector>

#include "front/snapshots.h"

namespace front {

// `word` is a name, a path (below the top of the file system, or one that leads to the snapshot), "#42"
// or "42" of snapper, "latest", or a time, which means the newest snapshot at or before it. A name
// takes precedence over a time. Times and "latest" mean read-only snapshots, and those of Timeshift,
// that this program did not make. Throws Trouble if none matches, or with all candidates if several do.
const Snapshot &chooseSnapshot(const std::vector<Snapshot> &all, const std::string &word,
                               const Fileset &fileset, int64_t now);

// Returns the backup that the last restore made. Throws Trouble if there is none.
const Snapshot &chooseUndo(const std::vector<Snapshot> &all, const Fileset &fileset);

}  // namespace front
