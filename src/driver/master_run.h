// The whole restore, after the preparation. Master only.
#pragma once

// Budget, synchronisation, passes and phases. *cleanupFlag is set when the work directory is worthless
// although the run failed. 0, or the rc of the step that failed, after its message.
int restoreFileset(int argc, char **argv, bool *cleanupFlag);

// What is left to do after success or failure: messages, the work directory, the fileset's root
// directory. `rc` is the result so far. 0 when the restore succeeded and left nothing behind that it
// should not.
int endRun(int rc, bool cleanupFlag, int *err);
