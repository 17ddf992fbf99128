// The op string of lists, batch lines and checkpoints: what a record asks for.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// The numbers are on disk in every list.
enum OpCode : int32_t {
  kOpRestoreDelFile = 1,   // make a deleted file again from the snapshot (restoreDelFile)
  kOpRestoreDiffFile = 2,  // restore changed data and attributes (restoreDiffFile)
  kOpCrDir = 3,            // make a deleted directory again (crDir)
  kOpMoveFile = 4,         // move an object aside or home (moveFile)
  // In no list: the walks use it for the snapshot path of an object that exists elsewhere.
  kOpFetch = 5,
  kOpDelDir = 6,         // remove a new directory (delDir)
  kOpDeleteFile = 7,     // remove a name (deleteFile)
  kOpLinkFile = 8,       // restore hard links (linkFile)
  kOpCloneFile = 10,     // make a clone again (cloneFile)
  kOpCompareGroup = 11,  // compare directories of both trees; offset and length: where the file at
                         // `path` names them (compareGroup)
};

struct Operation {
  int32_t opCode = 0;     // an OpCode, except in damaged lists
  int64_t offset = 0;     // bytes; data ranges only
  uint64_t length = 0;    // bytes; data ranges only
  int32_t holeFound = 0;  // 1: the range is a hole in the snapshot's file
  int32_t clone = 0;      // 1: the file is a clone or clone parent

  auto operator<=>(const Operation &) const = default;
  // Returns true for ranges of file data (op 1 and 2) of at least `bytes`.
  bool isRange(uint64_t bytes) const;
};

constexpr size_t kOpStringMax = 127;  // characters

// Returns "%d,%ld,%lu,%d,%d".
std::string formatOpString(const Operation &op);
// Returns false if the text does not begin with five numbers separated by commas.
bool parseOpString(std::string_view text, Operation *op);

// A record as the operations of a worker take it.
struct Record {
  // Number in the snapshot or, for codes 6 and 7, in the active fileset; in clone lists the parent's.
  uint64_t ino = 0;
  std::string path;  // active path or temporary location; any bytes
  Operation op;
};
