// Opening the trees of a run: handles, work directory of a worker, figures and scans.
#pragma once

#include <cstdint>

#include "base/result.h"

// How far the opening came.
enum class Opened {
  kReady,
  kRelease,  // failed before anything was created: release the handles
  kEnd,      // failed later: the master must also end the run
};

// What only the master does meanwhile.
struct MasterSteps {
  // Once handles and root paths are known, before anything else. Where it fails, so does openRun with
  // its result, and kRelease.
  Result (*prepare)();
  void (*listSnapshots)();  // before the scans are opened
  uint64_t *maxIno;         // receives the largest inode number of either tree
};

// Fills `handles` and the settings that depend on the file system, for the process's role. `master` is
// null in the others. rc of a failure is -1 or an errno. Every failure has printed its message, but for
// a worker that cannot open its work directory.
Opened openRun(const MasterSteps *master, Result *result);

// Opens the difference scan anew: it then shows the fileset as it is now. rc of a failure is the errno,
// after a message. Master only.
Result renewDifference();

// Opens the work directory and lets the library reach everything in it through its descriptor, whatever
// its path comes to mean. rc of a failure is the errno. Master and workers.
Result holdWorkDirectory();

// Closes scans and frees handles, as far as they were obtained.
void releaseHandles();
