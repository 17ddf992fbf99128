// The dispatcher of worker mode.
#pragma once

#include <cstdint>
#include <string>

// Performs the records of one batch in order, with a checkpoint line for each; the first that fails writes
// the fatal-error marker and ends the batch. 0 when all were performed, else the errno of the failing step
// (1 where there is none).
int doWorkUnit(const std::string &listPath, int32_t callerPid);
