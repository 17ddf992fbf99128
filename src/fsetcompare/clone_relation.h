// Whether clones and clone parents are related in the fileset as they are in the snapshot.
#pragma once

#include <string>

#include "base/result.h"
#include "fsetcompare/report.h"
#include "kest.h"

// Compares two regular files: whether they are clones or parents, of which depth and of which parent,
// and reports blocks that the snapshot's file shares with its parent and the fileset's does not. A file
// made again from a clone whose parent the snapshot does not hold counts as equal when it is what the
// restore makes of it: an ordinary file, or a parent of depth 0. rc of a failure is the errno.
Result compareClones(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                     Report *report);

// Whether a clone parent of the snapshot is in the fileset no longer the same parent with the same
// data: its clones have to be looked at, changed or not. Asks for the whole difference. rc of a failure
// is the errno.
Result anyBrokenParent(bool *broken);

// Compares every clone of the snapshot that did not change itself, after a broken parent was found. rc
// of a failure is the errno; what cannot be read of a single clone is reported as trouble.
Result compareUnchangedClones(Report *report);
