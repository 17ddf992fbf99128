// Opens the trees of a run: handles, a worker's work directory, figures of the file system, and scans.
#pragma once

#include <cstdint>

#include "base/result.h"

// How far openRun came, and what the caller must undo.
enum class Opened {
  kReady,
  kRelease,  // failed before anything was created: release the handles
  kEnd,      // failed later: release the handles and end the run (master)
};

// The steps that only the master takes.
struct MasterSteps {
  // Runs once the handles and root paths are known, before anything else. If it fails, openRun fails
  // with its result and kRelease.
  Result (*prepare)();
  void (*listSnapshots)();  // before the scans are opened
  uint64_t *maxIno;         // receives the largest inode number of either tree
};

// Fills `handles`, and the settings that depend on the file system, for the role of the process.
// `master` is null in workers and comparisons. rc of a failure is -1 or an errno. Every failure prints
// a message, except that of a worker which cannot open its work directory.
Opened openRun(const MasterSteps *master, Result *result);

// Closes the difference scan and opens it again, so that it shows the fileset as it is now. rc of a
// failure is the errno, after a message. Master only.
Result renewDifference();

// Opens the work directory and anchors the library to its descriptor: paths below it then resolve
// beneath this directory even if somebody renames or replaces it. rc of a failure is the errno. Master
// and workers.
Result holdWorkDirectory();

// Closes the scans and frees the handles that were opened.
void releaseHandles();
