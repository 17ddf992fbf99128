// DirListRecord: the same for objects below a deleted or new directory.
#pragma once

#include <cstdint>
#include <string>

#include "record/op_code.h"

// Nesting depth of the current object below its top deleted or new directory; 0 in a common directory.
extern int32_t dirDepth;

// Writes to the list of depth `dirDepth` in the set of `rootIno` (DelDir_ when `isDelDir`, else
// NewDir_); op 1 goes to opList.copy and opList.copy.delta, op 4 to the depth's move list. 0, -1 or an
// errno.
int DirListRecord(uint64_t rootIno, const std::string &path, uint64_t ino, OpCode opCode, int nextOps,
                  bool isDelDir);

// Writes out what DirListRecord keeps in memory and closes its lists; before any of them is read. A
// failure goes to *rc unless there is one already.
void closeDirLists(int *rc);
