// The dispatcher of worker mode.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"

// Performs the records of one batch in order, with a checkpoint line for each; the first that fails
// writes the fatal-error marker and ends the batch. rc of a failure is the errno of the failing step (1
// where there is none).
Result doWorkUnit(const std::string &listPath, int32_t callerPid);

// Worker mode as a whole, once the trees are open: the batch of the settings, with its trace lines. The
// exit status.
int runWorker();
