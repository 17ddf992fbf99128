// Compares a fileset with its snapshot.
#pragma once

#include "base/result.h"
#include "fsetcompare/report.h"

// Compares the trees of `handles` and reports every difference once. Compares objects of equal names.
// Reports an object that has another name in the fileset as moved, and compares it, and what a moved
// directory contains, at that place. With `full` reads every object and asks the kernel by ordinary
// calls for data, attributes, flags and extents, so that it checks the library too; else enters only
// what leads to an inode of the difference. A failure means that the comparison was broken off; its rc
// is the errno.
Result compareTrees(bool full, Report *report);
