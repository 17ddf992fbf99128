// The whole restore after the preparation. Master only.
#pragma once

#include <cstdint>

#include "base/result.h"
#include "plan/lists.h"

// Sets the memory budget, commits the file system and runs passes and phases. `item_limit` is the
// number of difference items that one pass may hold; 0 takes it from the memory budget. *worthless says
// that the work directory can be removed although the run failed. A failure is that of its step, after
// its message; Result::full() recognises a full file system.
Result restoreFileset(int argc, char **argv, uint64_t item_limit, MasterLists &lists, bool *worthless);

// Ends a run after success or failure: prints messages, removes the work directory and restores the
// attributes of the fileset's root directory. `result` is the result so far, `worthless` as above.
// Returns the result of the run; *tidied receives that of the clean-up, which is ENOENT without a work
// directory.
Result endRun(Result result, bool worthless, Result *tidied);
