// The walks over the directories that differ, which decide what every object needs. Master only.
#pragma once

#include "base/result.h"
#include "plan/lists.h"

// Walks the fileset for the current pass, from the root, only where the difference leads: writes lists
// and moves renamed directories aside. From the second pass on also every directory that waits in a
// temporary location. The first failure, which has been traced, ends it.
Result walkNames(MasterLists &lists);
