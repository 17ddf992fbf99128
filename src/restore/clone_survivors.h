// Handles clones that survived, or have a twin, while their parent was made again.
#pragma once

#include "base/result.h"

// Writes the present number of its parent into every such clone, then sets the modification times of
// those parents (see unsettledTime). Costs nothing if this run made no parent again; else it reads
// every inode of the snapshot. rc of a failure is the errno. Master only.
Result followNewParents();
