// Making clones and clone parents again.
#pragma once

#include "base/result.h"
#include "formats/operation.h"

// Op 10: makes the clone at the path of the record (a place in the tree or a temporary location) from
// its parent, with the snapshot's data and attributes; a clone parent, whether it was made here or as
// an ordinary file before, becomes one and its new inode number is recorded for the next depth. A clone
// that a lost worker left unfinished is finished. Failures are traced.
Result cloneFile(const Record &record);
