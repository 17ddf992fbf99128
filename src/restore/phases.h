// The phases: each runs the policy engine over one list of the work directory. Master only. A failure
// is that of its step, after its message; rc is the engine's exit status, an errno or -1.
#pragma once

#include "base/result.h"
#include "plan/lists.h"

// Runs the lists of one pass: opList, opList.move, the clone delete lists, regMoveList.
Result runPassPhases(MasterLists &lists);
// After the last pass: runs regPendingMvList and opList.copy.
Result runFinalPhases();
// After the final directory move: runs the clone lists, shallowest first, then link.ino.
Result runLatePhases();
// Restores the attributes of the directories in dir.new. Call it last, because every other phase
// changes directories. Repeats while that lists directories again.
Result settleDirectories();
