// The policy file: names this program as the engine's list script.
#pragma once

#include <string>

// Writes it anew. 0 or an errno, after a trace line.
int writePolicyFile(const std::string &exe, const std::string &options, const std::string &policyPath);
