// The phases of a run: one kind of engine run each, with its list.
#pragma once

#include <cstdint>

// Phase numbers appear on command lines and in the trace log.
enum Phase : int32_t {
  kPhaseMain = 3,          // opList, opList.move, per-directory lists
  kPhaseMoveBack = 4,      // regMoveList
  kPhasePending = 5,       // regPendingMvList
  kPhaseDirs = 6,          // dir.last, final directory move
  kPhaseClones = 7,        // clone.<d>
  kPhaseLinks = 8,         // link.ino
  kPhaseScan = 9,          // scan.list; before all others
  kPhaseCloneDelete = 31,  // clone.del.<d>
  kPhaseCreate = 51,       // opList.copy
};
