// One restore of a fileset at a time. Master only.
#pragma once

// Takes the lock on the root directory of the active fileset (handles.rootPath), the same through every
// mount of the file system. Every command of the run inherits it, and so do engine and workers: it is
// free again when the last process of the run has ended, however that happened. 0, or an errno after a
// message (EWOULDBLOCK: another restore has it).
int lockFileset();
