// Runs fsetrestore once and watches it.
#pragma once

#include "front/fileset.h"
#include "front/snapshots.h"

namespace front {

// Runs fsetrestore to its end and returns its exit status. Its messages appear on standard error. On a
// terminal a live line shows the progress instead of fsetrestore's own progress lines, which begin with
// a time stamp. Passes SIGINT, SIGTERM and SIGHUP on to it. Throws Trouble if it cannot be started.
int runRestore(const Fileset &fileset, const Snapshot &snapshot);

}  // namespace front
