// Whether two regular files hold the same.
#pragma once

#include <string>

#include "base/result.h"
#include "fsetcompare/report.h"
#include "kest.h"

// Compares data and holes below both sizes and reports the offset of the first difference of each.
// Holes are not read. `by_difference`: both are the same inode, and only the ranges that the difference
// scan names are looked at. rc of a failure is the errno.
Result compareData(kest_ifile_t *active, kest_ifile_t *snapshot, bool by_difference,
                   const std::string &path, Report *report);

// For the same inode in both trees: whether the difference scan names ranges of its data. rc of a
// failure is the errno.
Result dataRangesDiffer(kest_ifile_t *active, bool *differ);
