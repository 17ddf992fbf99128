// Which snapshot the user means.
#pragma once

#include <string>
#include <vector>

#include "front/snapshots.h"

namespace front {

// A name, a path (below the top of the file system, or one that leads there), "#42" or "42" of snapper,
// "latest", or a time: the newest at or before it. A name goes before a time. Times and "latest" mean
// read-only snapshots, and Timeshift's, that this program did not make. Throws Trouble where there is
// none, and with all of them where the word means several.
const Snapshot &chooseSnapshot(const std::vector<Snapshot> &all, const std::string &word,
                               const Fileset &fileset, int64_t now);

// The state before the last restore. Throws Trouble where there is none.
const Snapshot &chooseUndo(const std::vector<Snapshot> &all, const Fileset &fileset);

}  // namespace front
