// The walk over a directory that only the active fileset has. Master only.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "plan/entries.h"
#include "plan/lists.h"

// Lists what must go, in the set of the top new directory `rootIno`, and takes out what the snapshot
// has. The caller has set dirDepth. Failures are traced; their rc is an errno, -1 or a callee's.
Result traverseNewDir(MasterLists &lists, const CommonWalker &walkCommon, uint64_t rootIno,
                      std::string &path, uint64_t ino);
