// The comparison of a fileset with its snapshot.
#pragma once

#include "base/result.h"
#include "fsetcompare/report.h"

// Compares the trees of `handles` and reports every difference once. Objects are compared with those of
// the same name; one that has another name in the fileset is reported as moved, and the contents of a
// moved directory are compared there. `full`: every object is read; else those that the difference scan
// names. A failure, whose rc is the errno, means that the comparison broke off.
Result compareTrees(bool full, Report *report);
