// Removes from a list the records that checkpoints show as done, after an engine run that failed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"

// Finds the checkpoint files of the runs that the process of this number started (callerNumber). rc of
// a failure is the errno, after a trace line if the directory cannot be opened.
Result findCheckpointFiles(int32_t pid, std::vector<std::string> *paths);

// Rewrites the list without the records that are done. `pid` is the number of the process that started
// the run. A failure is traced and leaves the list as it was, unless the replacement of the list itself
// failed.
Result updateOpList(const std::string &opListPath, int32_t pid);
