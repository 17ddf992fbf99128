// The phases: one policy-engine run each over one list of the work directory. Master only. A failure is
// that of its step, after its message: the engine's exit status, an errno or -1.
#pragma once

#include "base/result.h"
#include "plan/lists.h"

// What follows the lists of each pass: opList, opList.move, the clone delete lists, regMoveList.
Result runPassPhases(MasterLists &lists);
// What follows the last pass: regPendingMvList, opList.copy.
Result runFinalPhases();
// After the final directory move: clone lists from the roots down, then link.ino.
Result runLatePhases();
// Last of all, because every other phase changes directories: the attributes of dir.new, and again as
// long as setting them has listed directories again.
Result settleDirectories();
