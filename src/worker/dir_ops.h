// Making and removing directories.
#pragma once

#include "base/result.h"
#include "formats/operation.h"
#include "policy/nested_runs.h"

// Op 3. In pass 1 and in phase 6: makes the directory and restores its attributes; outside phase 6
// lists it for that phase. Then, for a top directory, its per-directory lists; `here` performs small
// ones. Failures are traced.
Result crDir(const Record &record, const ListRunner &here);

// Op 6. For a top directory its per-directory lists, as above, then the directory itself, if it still
// is the inode of the record. A directory that only holds what the restore leaves alone (snapshots)
// stays, with a message. Failures are traced.
Result delDir(const Record &record, const ListRunner &here);
