// Objects of a difference that a restore cannot treat like others.
#pragma once

#include "cephfs/tree_root.h"
#include "filesystem/file_system.h"

namespace kest {

// See Tree::findObstacles. Programs are seen where they run on this node, from the mount of the
// fileset. There is no swap space on a CephFS, and its client always has access control lists. 0 or
// -errno.
int findObstacles(const CephRoot &active, const CephRoot &snapshot, Difference *difference,
                  const ObstacleVisitor &visit);

}  // namespace kest
