// What the system permits this process to do: its resource limits and capabilities.
#pragma once

#include "base/result.h"

// Every program calls this first. A write beyond RLIMIT_FSIZE then fails with EFBIG instead of raising
// SIGXFSZ, in this process and in the commands that it starts. Raises a soft stack limit that is too
// small for the deepest tree. rc of a failure is the errno, after a message; EPERM: the hard limit is
// too small.
Result prepareLimits();

// Checks that this process, and every program that it starts, has the capabilities for a restore (for a
// comparison: those for reading). Raises the limit of open descriptors as far as it may and checks that
// it suffices. rc of a failure is an errno, after a message. Master and comparison call this first.
Result checkRights();
