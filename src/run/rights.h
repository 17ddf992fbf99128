// What the system lets this process do.
#pragma once

#include "base/result.h"

// The process, and every one that it starts, must have the capabilities of a restore or, in the role of
// a comparison, those of reading, and may open enough files at a time; the limit is raised as far as
// the process may. rc of a failure is an errno, after a message. Master and comparison, first of all.
Result checkRights();
