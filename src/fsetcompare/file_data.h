// Compares the contents of two regular files.
#pragma once

#include <string>

#include "base/result.h"
#include "fsetcompare/report.h"
#include "kest.h"

// Compares data and holes up to the smaller size and reports the first differing offset of each. Does
// not read holes. With `by_difference` both are the same inode, and only the ranges in the difference
// scan are compared. rc of a failure is the errno.
Result compareData(kest_ifile_t *active, kest_ifile_t *snapshot, bool by_difference,
                   const std::string &path, Report *report);

// For one inode in both trees: sets *differ if the difference scan has ranges of its data. rc of a
// failure is the errno.
Result dataRangesDiffer(kest_ifile_t *active, bool *differ);
