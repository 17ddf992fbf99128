// What a record asks for: the op string of lists, batch lines and checkpoints.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Operation codes are on disk in every list.
enum OpCode : int32_t {
  kOpRestoreDelFile = 1,   // restoreDelFile: a deleted file comes back from the snapshot
  kOpRestoreDiffFile = 2,  // restoreDiffFile: changed data and attributes are copied back
  kOpCrDir = 3,            // crDir: a deleted directory is made again
  kOpMoveFile = 4,         // moveFile
  // Of the walks only, in no list: the snapshot path of an object that lives elsewhere.
  kOpFetch = 5,
  kOpDelDir = 6,      // delDir
  kOpDeleteFile = 7,  // deleteFile
  kOpLinkFile = 8,    // linkFile
  kOpCloneFile = 10,  // cloneFile
};

struct Operation {
  int32_t opCode = 0;     // an OpCode, but for damaged lists
  int64_t offset = 0;     // bytes; data ranges only
  uint64_t length = 0;    // bytes; data ranges only
  int32_t holeFound = 0;  // the snapshot's file has a hole there
  int32_t clone = 0;      // the file is a clone or a clone parent

  auto operator<=>(const Operation &) const = default;
  // True for ranges of file data (operations 1 and 2) of `bytes` or more.
  bool isRange(uint64_t bytes) const;
};

constexpr size_t kOpStringMax = 127;  // characters

// "%d,%ld,%lu,%d,%d".
std::string formatOpString(const Operation &op);
// False when the text does not start with five comma-separated numbers.
bool parseOpString(std::string_view text, Operation *op);

// A record as the operations take it.
struct Record {
  uint64_t ino = 0;  // of the snapshot or the active fileset, by operation
  std::string path;  // active path or temporary location; any bytes
  Operation op;
};
