// Walks a directory that only the snapshot has. Master only.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "plan/lists.h"

// Lists what is needed to make the contents of the snapshot directory `ino` again at `path`, in the set
// of the top deleted directory `rootIno`. The caller has incremented dirDepth. Failures are traced; rc
// is an errno, -1 or that of a callee.
Result traverseDelDir(MasterLists &lists, uint64_t rootIno, std::string &path, uint64_t ino);
