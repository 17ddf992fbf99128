// Walks the directories that differ and decides what every object needs. Master only.
#pragma once

#include "base/result.h"
#include "plan/lists.h"

// Walks the fileset from its root for the current pass, only where the difference leads. Writes lists
// and moves renamed directories aside. From the second pass on also walks every directory that waits in
// a temporary location. Stops at the first failure, which has been traced.
Result walkNames(MasterLists &lists);
