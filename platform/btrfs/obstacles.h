// Finds the objects of a difference that a restore cannot treat like others.
#pragma once

#include "btrfs/tree_root.h"
#include "filesystem/file_system.h"

namespace kest {

// See Tree::findObstacles. The trees must be committed. 0 or -errno.
int findObstacles(const TreeRoot &active, const TreeRoot &snapshot, Difference *difference,
                  const ObstacleVisitor &visit);

}  // namespace kest
