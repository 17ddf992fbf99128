// Whether two regular files hold the same.
#pragma once

#include <string>

#include "kest.h"
#include "verify/report.h"

// Compares data and holes below both sizes and reports the offset of the first difference of each.
// Holes are not read. `by_difference`: both are the same inode, and only what the difference scan names
// is looked at. 0 or an errno.
int compareData(kest_ifile_t *active, kest_ifile_t *snapshot, bool by_difference,
                const std::string &path, Report *report);

// For the same inode in both trees: 1 when the difference scan names ranges of its data, 0, or -1 and
// errno.
int dataRangesDiffer(kest_ifile_t *active);
