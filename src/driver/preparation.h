// What master and workers need before they begin: handles, work directory, scans.
#pragma once

// A failure that leaves nothing behind goes to the release of the handles, any other through the end of
// the run.
enum class Prepared { kReady, kRelease, kEnd };

// Fills `handles` and the settings that depend on the file system. *rc: 0, or what went wrong, after a
// message.
Prepared prepareRun(int *rc);

// For a run that ends before it changed anything: the flags of the root directory, which stood in the way of the
// work directory, as they were.
void putBackRootFlags();

// Closes scans and frees handles, as far as they were obtained.
void releaseHandles();
