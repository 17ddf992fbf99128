// Is the inode with this number still the snapshot's file, and what else does the difference know of
// it?
#pragma once

#include <cstdint>

#include "base/result.h"

enum FileKind : int {
  kKindSame = 0,     // same file in both
  kKindOther = 1,    // the active inode is not the snapshot's file
  kKindDeleted = 8,  // absent from the active fileset
};

// Whole generations and creation times are compared. A file that became a clone parent, or is no clone
// any more, is not the snapshot's file either: see needsRemaking. A failure has been traced; its rc is
// -1.
Result checkFile(uint64_t ino, FileKind *kind);

// The same for the scan and the walks: in the first pass, before the run has changed anything, it is
// what the difference knows, and nothing is opened. A program that runs and would have to be written to
// is not the snapshot's file either. Master only.
Result checkScanned(uint64_t ino, FileKind *kind);

// False for a file of both trees that the difference knows as no clone of either. Master only.
bool mayBeClone(uint64_t ino);

// Whether the inode is the same in both trees, but counts as another file: nothing turns its clone
// state back into the snapshot's, or it runs. As checkScanned.
Result needsRemaking(uint64_t ino, bool *remake);

// Whether a non-directory has two or more names in the snapshot, or had them in the active fileset when
// the difference was computed. An inode that cannot be looked at is traced and recorded as a fatal
// error, and counts as having one name: the run ends with 1 before its lists are used. Master only.
bool isHardLinked(uint64_t ino);
