// Finds mounts inside a fileset or snapshot that prevent a restore.
#pragma once

#include <string>

#include "btrfs/tree_root.h"
#include "diff/difference_set.h"

namespace kest {

// See kest_mount_in_the_way. The trees must be committed, because names are searched in them. 1, 0 or
// -errno.
int findMountInTheWay(const TreeRoot &active, const TreeRoot &snapshot, const DifferenceSet &difference,
                      std::string *point);

}  // namespace kest
