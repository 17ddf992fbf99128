// Policy-engine runs: one list, worked off by workers, with retries. Master, and workers for nested
// runs.
#pragma once

#include "base/result.h"
#include "policy/command_lines.h"

// Writes the policy file, runs the engine, and repeats a run that failed without a recorded fatal
// error, at most three times, over what is left of the list. An empty list starts nothing. Done when
// the run succeeded and its checkpoint files were removed; rc of a failure is the engine's exit status
// (128 + signal when it was killed), an errno (EINTR: the run is to end), or -1.
Result executePolicy(const EngineRun &run);
