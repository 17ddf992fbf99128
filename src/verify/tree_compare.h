// The comparison of a fileset with its snapshot.
#pragma once

#include "verify/report.h"

// Compares the trees of `handles` and reports every difference once. Objects are compared with what
// stands under the same name; one that stands elsewhere is told as moved, and what is in a moved
// directory is compared there. `full`: every object is read; else what the difference scan names. 0, or
// -1 and errno: the comparison broke off.
int compareTrees(bool full, Report *report);
