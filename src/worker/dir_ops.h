// Makes and removes directories.
#pragma once

#include "base/result.h"
#include "formats/operation.h"
#include "policy/nested_runs.h"

// Op 3. In pass 1 and in phase 6, makes the directory and restores its attributes; before phase 6 also
// lists it for that phase. If `here` is set, the directory counts as a top directory, and its lists are
// run; `here` performs small lists. Failures are traced.
Result crDir(const Record &record, const ListRunner &here);

// Op 6. Runs the lists of a top directory as above, then removes the directory if it is still the
// record's inode. A directory that holds only objects which the restore leaves alone, such as
// snapshots, stays, with a message. Failures are traced.
Result delDir(const Record &record, const ListRunner &here);
