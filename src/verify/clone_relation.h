// Whether clones and clone parents stand to each other in the fileset as they do in the snapshot.
#pragma once

#include <string>

#include "kest.h"
#include "verify/report.h"

// Compares two regular files: whether they are clones or parents, of which depth and of which parent,
// and reports blocks that the snapshot's file shares with its parent and the fileset's does not. A file
// made again from a clone whose parent the snapshot does not hold counts as equal when it is what the
// restore makes of it: an ordinary file, or a parent of depth 0. 0 or an errno.
int compareClones(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                  Report *report);

// Whether a clone parent of the snapshot is in the fileset no longer the same parent with the same
// data: its clones have to be looked at, changed or not. Asks for the whole difference. 1, 0, or -1 and
// errno.
int anyBrokenParent();

// Every clone of the snapshot that did not change itself, after a broken parent was found. 0, or -1 and
// errno; what cannot be read of a single one is told.
int compareUnchangedClones(Report *report);
