// Refusals before anything is touched, and the lock of the fileset. Master only.
#pragma once

#include "base/result.h"
#include "kest.h"

// Takes the lock on the root directory of the active fileset (handles.rootPath), the same through every
// mount of the file system, so that one restore of a fileset runs at a time. Every command of the run
// inherits it, and so do engine and workers: it is free again when the last process of the run has
// ended, however that happened. rc of a failure is the errno (EWOULDBLOCK: another restore has it),
// after a message.
Result lockFileset();
// Takes away what the lock stands on, if this process took it. At the end of a run.
void unlockFileset();

// The program, its library and the commands of the file system must be there and outlive the restore;
// the fileset must be writable; every node must be this machine. A writable snapshot only gives a
// warning. rc of a failure is an errno, after a message.
Result selfCheck();

// No swap space may have to be touched, and no access control list be set that the mount does not
// allow. Computes the difference of `scan`, and notes there which programs run and are made anew; tells
// of them where `tell` is set. rc of a failure is an errno, after a message.
Result obstacleCheck(kest_iscan_t *scan, bool tell);

// Nothing may be mounted on what the restore would have to touch. Computes the difference of `scan`. rc
// of a failure is an errno, after a message.
Result mountCheck(kest_iscan_t *scan);
