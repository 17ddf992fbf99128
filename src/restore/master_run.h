// The whole restore, after the preparation. Master only.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "plan/lists.h"

// Budget, synchronisation, passes and phases. `item_limit`: difference items that one pass may hold, 0
// for those of the memory budget. *worthless is set when the work directory can go although the run
// failed. A failure is that of its step, after its message; a full file system is known by its rc,
// ENOSPC or EDQUOT.
Result restoreFileset(int argc, char **argv, uint64_t item_limit, MasterLists &lists, bool *worthless);

// What is left to do after success or failure: messages, the work directory, the fileset's root
// directory. `result` is the one so far, `worthless` as above. Returns the result of the run; *tidied
// receives that of the clean-up, which is ENOENT where there is no work directory.
Result endRun(Result result, bool worthless, Result *tidied);
