// Is the inode with this number still the snapshot's file?
#pragma once

#include <cstdint>

enum FileKind : int {
  kKindSame = 0,     // same file in both
  kKindOther = 1,    // the active inode is not the snapshot's file
  kKindDeleted = 8,  // absent from the active fileset
};

// A FileKind, or -1 with errno after a trace line. Whole generations and creation times are compared. A
// file that became a clone parent, or is no clone any more, is not the snapshot's file either:
// mustBeRemade.
int checkFile(uint64_t ino);

// The same for the scan and the walks: in the first pass, before the run has changed anything, it is
// what the difference knows, and nothing is opened. Master only.
int checkScanned(uint64_t ino);

// False for a file of both trees that the difference knows as no clone of either. Master only.
bool mayBeClone(uint64_t ino);

// 1 when the inode is the same in both trees, but nothing turns its clone state back into the
// snapshot's, so that it counts as another file; 0; -1 with errno after a trace line. As checkScanned.
int mustBeRemade(uint64_t ino);
