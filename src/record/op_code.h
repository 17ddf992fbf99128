// Operation codes. They are on disk in every list.
#pragma once

#include <cstdint>

enum OpCode : int32_t {
  kOpRestoreDelFile = 1,   // restoreDelFile: a deleted file comes back from the snapshot
  kOpRestoreDiffFile = 2,  // restoreDiffFile: changed data and attributes are copied back
  kOpCrDir = 3,            // crDir: a deleted directory is made again
  kOpMoveFile = 4,         // moveFile
  kOpFetch = 5,            // ListRecord only: the snapshot path of an object that lives elsewhere
  kOpDelDir = 6,           // delDir
  kOpDeleteFile = 7,       // deleteFile
  kOpLinkFile = 8,         // linkFile
  kOpCloneFile = 10,       // cloneFile
};
