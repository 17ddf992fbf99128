// One run of fsetrestore, watched.
#pragma once

#include "front/fileset.h"
#include "front/snapshots.h"

namespace front {

// Runs it to its end and returns its exit status. What it says appears on standard error; on a terminal
// a live line shows how far it is, and its own words about that (lines that begin with a time stamp)
// are left out. SIGINT, SIGTERM and SIGHUP are passed on to it. Throws Trouble where it cannot be
// started.
int runRestore(const Fileset &fileset, const Snapshot &snapshot);

}  // namespace front
