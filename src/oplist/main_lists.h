// ListRecord: one decision of the walks becomes records of the main lists. Master only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "record/op_code.h"
#include "run/work_file.h"

// opList, opList.copy, opList.copy.delta: opened for each pass by the driver, closed by it.
extern std::unique_ptr<WorkFile> opListP, cpListP, cpDeltaP;

// Op 5 records the destination of `ino` and writes no record; 4 goes to opList.move, 1 to opList.copy
// and opList.copy.delta, 2 becomes the changed ranges of a file (truncating the active file first),
// every other code one record of opList. `path`: active path or temporary location. 0, -1 or an errno,
// after a trace line.
int ListRecord(const std::string &path, uint64_t ino, OpCode opCode, int nextOps);
