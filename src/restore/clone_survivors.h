// Clones that survived, or have a twin, while their parent was made again.
#pragma once

#include "base/result.h"

// Gives every clone that survived or has a twin the number that its parent has now, then the parents
// their modification times (unsettledTime). It costs nothing where no parent
// was made again in this run, else a read of every inode of the snapshot. rc of a failure is the errno.
// Master only.
Result followNewParents();
