// Objects of a difference that a restore cannot treat like others.
#pragma once

#include "cephfs/tree_root.h"
#include "filesystem/file_system.h"

namespace kest {

// See Tree::findObstacles. Finds only programs that run on this node from the mount of the fileset. A
// CephFS has no swap space, and its client always supports ACLs. 0 or -errno.
int findObstacles(const CephRoot &active, const CephRoot &snapshot, Difference *difference,
                  const ObstacleVisitor &visit);

}  // namespace kest
