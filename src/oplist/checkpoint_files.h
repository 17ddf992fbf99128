// The checkpoint files of one caller's runs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Their paths. 0 or an errno, after a trace line when the directory cannot be opened.
int findCheckpointFiles(int32_t pid, std::vector<std::string> *paths);
