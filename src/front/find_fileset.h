// Finds the fileset in which a path lies, on any kind of file system.
#pragma once

#include "front/fileset.h"

namespace front {

// With `to_change` the caller is going to restore the fileset. Throws Trouble.
Fileset findFileset(const Place &place, bool to_change);

}  // namespace front
