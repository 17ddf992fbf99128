// Finds the directory of a CephFS that has snapshots and in which a path lies.
#pragma once

#include "front/fileset.h"

namespace front {

// Returns true if the object of the descriptor, which may be of type O_PATH, is on a CephFS that is
// mounted by the kernel or by FUSE.
bool isOnCephFs(int fd);

// As findFileset, for a path on a CephFS. Without `place.fileset` the fileset is the nearest directory,
// from the path upwards and below the root of the mount, that has snapshots of its own; if there is
// none, the directory of the path itself. A path in a snapshot means the directory of which it is one.
Fileset findCephFileset(const Place &place);

}  // namespace front
