// Policy-engine runs: one list, worked off by workers, with retries. Master, and workers for nested
// runs.
#pragma once

#include <string>

// Writes the policy file, runs the engine's command line, and repeats a run that failed without a
// recorded fatal error, at most three times, over what is left of the list. `policyPath` empty:
// "policy" in the work directory. `pcCmd` is one program with its arguments and redirections. An empty
// list starts nothing. 0 when the run succeeded and its checkpoint files were removed; else
// the engine's exit status (128 + signal when it was killed), an errno (EINTR: the run is to end), or
// -1.
int executePolicy(const std::string &pcCmd, const std::string &exeOpt, const std::string &policyPath,
                  const std::string &opListPath);
