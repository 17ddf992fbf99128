// The phases: one policy-engine run each over one list of the work directory. Master only.
#pragma once

#include <string>

// Builds the options that every engine run and every worker gets, and makes sure that the command lines
// of all phases will fit. 0, or E2BIG after a message.
int buildEngineOptions();

// What follows the lists of each pass: opList, opList.move, the clone delete lists, regMoveList.
int runPassPhases();
// What follows the last pass: regPendingMvList, opList.copy, opList.copy.delta.
int runFinalPhases();
// After the final directory move: clone lists from the roots down, then link.ino.
int runLatePhases();
// Last of all, because every other phase changes directories: the attributes of dir.new, and again
// while setting them has listed directories anew.
int settleDirectories();
// All: 0, or the rc of the step that failed, after its message.
