// Runs the policy engine over one list, with retries. Master, and workers for nested runs.
#pragma once

#include "base/result.h"
#include "policy/command_lines.h"

// Writes the policy file and runs the engine. If a run fails without a recorded fatal error, removes
// the done records from the list and repeats, at most three times. Does nothing for an empty list.
// Succeeds if the run succeeded and its checkpoint files were removed. rc of a failure is the engine's
// exit status (128 + signal if it was killed), an errno (EINTR: a stop signal ends the run) or -1.
Result executePolicy(const EngineRun &run);
