// The dispatcher of worker mode.
#pragma once

#include <cstdint>
#include <string>

// Performs the records of one batch in order, with a checkpoint line for each; the first that fails
// writes the fatal-error marker and ends the batch. 0 when all were performed, else the errno of the
// failing step (1 where there is none).
int doWorkUnit(const std::string &listPath, int32_t callerPid);

// Performs the records of a per-directory list in this process, as a worker of a nested run would: in
// phase 3 and without nested runs of its own. No checkpoints: the record of the top directory is the
// one that is repeated. 0, or the error code of the first record that failed, with errno.
int performListHere(const std::string &listPath);
