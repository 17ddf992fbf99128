// Finds the btrfs subvolume in which a path lies.
#pragma once

#include "front/fileset.h"

namespace front {

// As findFileset, for a path on a btrfs, or for a block device. Mounts the top level of the file system
// privately. With `to_change` that mount is writable, unless the user mounted the file system
// read-only. If the top level cannot be mounted, `top` stays empty; that is enough for a fileset that
// is mounted.
Fileset findBtrfsFileset(const Place &place, bool to_change);

}  // namespace front
