// Checks that refuse a restore before it changes anything, and the lock of the fileset. Master only.
#pragma once

#include "base/result.h"
#include "kest.h"

// Locks the root directory of the active fileset (handles.rootPath), so that only one restore of a
// fileset runs at a time, through whichever mount. All commands of the run inherit the lock, so it is
// released when the last process of the run has ended, however it ended. rc of a failure is the errno,
// after a message; EWOULDBLOCK: another restore holds the lock.
Result lockFileset();
// Removes the file on which the lock is held, if there is one and this process took the lock. The
// master calls this at the end of a run.
void unlockFileset();

// Checks that the program, its library and the commands of the file system exist and survive the
// restore, that the fileset is writable and that every node is this machine. A writable snapshot causes
// a warning only. rc of a failure is an errno, after a message.
Result selfCheck();

// Checks that the restore need not touch active swap space, nor set an ACL that the mount does not
// allow. Computes the difference of `scan` and marks there the running programs that must be made
// again; names them in messages if `tell` is set. rc of a failure is an errno, after a message.
Result obstacleCheck(kest_iscan_t *scan, bool tell);

// Checks that nothing is mounted on an object that the restore would have to touch. Computes the
// difference of `scan`. rc of a failure is an errno, after a message.
Result mountCheck(kest_iscan_t *scan);
