// After a failed run: the list without the records that checkpoints show as done.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"

// Paths of the checkpoint files of one caller's runs. rc of a failure is the errno, after a trace line
// when the directory cannot be opened.
Result findCheckpointFiles(int32_t pid, std::vector<std::string> *paths);

// `pid`: the process that started the run. After a failure, which has been traced, the list is as it
// was, unless the exchange itself failed.
Result updateOpList(const std::string &opListPath, int32_t pid);
