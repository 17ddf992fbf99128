// Is the inode with this number still the snapshot's file?
#pragma once

#include <cstdint>

enum FileKind : int {
  kKindSame = 0,     // same file in both
  kKindOther = 1,    // the active inode is not the snapshot's file
  kKindDeleted = 8,  // absent from the active fileset
};

// A FileKind, or -1 with errno after a trace line. Whole generations and creation times are compared.
int checkFile(uint64_t ino);
