// The dispatcher of a worker.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"

// Performs the records of one batch in order and writes a checkpoint line after each. The first failure
// writes the fatal-error marker and ends the batch. rc of a failure is the errno of the failing step;
// EIO if a command failed, of which only the exit status is known.
Result doWorkUnit(const std::string &listPath, int32_t callerPid);

// Runs a whole worker, once the trees are open: the batch that the settings name, with its trace lines.
// Returns the exit status.
int runWorker();
