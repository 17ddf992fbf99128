// Decides whether an inode number still denotes the snapshot's file, and what else the difference knows
// about it.
#pragma once

#include <cstdint>

#include "base/result.h"

enum FileKind : int {
  kKindSame = 0,     // same file in both
  kKindOther = 1,    // the active inode is not the snapshot's file
  kKindDeleted = 8,  // absent from the active fileset
};

// Compares the whole generation and creation time, because inode numbers can be reused. A file that
// became a clone parent, or stopped being a clone, counts as another file (see needsRemaking). Failures
// are traced; rc is -1.
Result checkFile(uint64_t ino, FileKind *kind);

// Like checkFile, for the scan and the walks. In the first pass, before the run changes anything, it
// asks the difference and opens nothing. A running program that would have to be written counts as
// another file, too. Master only.
Result checkScanned(uint64_t ino, FileKind *kind);

// Returns false only if the difference knows that the file is in both trees and a clone in neither.
// Master only.
bool mayBeClone(uint64_t ino);

// Sets *remake if both trees hold the same inode but the file must be made again: its clone state
// cannot be changed back in place, or it is a running program. Master only.
Result needsRemaking(uint64_t ino, bool *remake);

// Sets *linked if a non-directory has several names in the snapshot, or had them in the active fileset
// when the difference was computed. A failure is traced and printed; rc is -1. Master only.
Result isHardLinked(uint64_t ino, bool *linked);
