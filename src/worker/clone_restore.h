// Makes clones and clone parents again.
#pragma once

#include "base/result.h"
#include "formats/operation.h"

// Op 10: makes the clone at the record's path (in the tree or in a temporary location) from its parent,
// with the snapshot's data and attributes. A clone parent, made here or before as an ordinary file,
// then becomes a parent, and its new inode number is recorded for the next depth. Finishes a clone that
// a dead worker left unfinished. Failures are traced.
Result cloneFile(const Record &record);
