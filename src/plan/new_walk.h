// Walks a directory that only the active fileset has. Master only.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "plan/entries.h"
#include "plan/lists.h"

// Lists the removal of the directory's contents in the set of the top new directory `rootIno`, and
// moves out the objects that the snapshot has. The caller has set dirDepth. Failures are traced; rc is
// an errno, -1 or that of a callee.
Result traverseNewDir(MasterLists &lists, const CommonWalker &walkCommon, uint64_t rootIno,
                      std::string &path, uint64_t ino);
