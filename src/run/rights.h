// Checks what the system permits this process to do.
#pragma once

#include "base/result.h"

// Checks that this process, and every program that it starts, has the capabilities for a restore (for a
// comparison: those for reading). Raises the limit of open descriptors as far as it may and checks that
// it suffices. rc of a failure is an errno, after a message. Master and comparison call this first.
Result checkRights();
