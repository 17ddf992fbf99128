// Checks that clones and clone parents are related in the fileset as they are in the snapshot.
#pragma once

#include <string>

#include "base/result.h"
#include "fsetcompare/report.h"
#include "kest.h"

// Compares two regular files: whether they are clones or clone parents, at which depth and of which
// parent. Also reports blocks that the snapshot's file shares with its parent but the fileset's does
// not. If the snapshot does not hold the parent of a clone, a file that was made again is equal when it
// is what the restore makes of it: an ordinary file, or a clone parent of depth 0. rc of a failure is
// the errno.
Result compareClones(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                     Report *report);

// Sets *broken if some clone parent of the snapshot is no longer the same parent with the same data in
// the fileset; all its clones must then be compared, changed or not. Reads the whole difference. rc of
// a failure is the errno.
Result anyBrokenParent(bool *broken);

// Compares all clones of the snapshot that did not change themselves. Call it after anyBrokenParent
// found one. rc of a failure is the errno; failures to read a single clone are reported as trouble.
Result compareUnchangedClones(Report *report);
