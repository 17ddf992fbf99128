// The line with which the policy engine hands a record to a worker:
//
//   <inode, decimal> <generation> <snapshot>  <op string> -- <path>\n
//
// In the path, backslash, newline and tab are written as \\, \n and \t.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "formats/list_record.h"

constexpr size_t kBatchLineMax = 16384;  // bytes, with newline and terminator

struct BatchLine {
  uint64_t ino = 0;
  std::string opString;
  std::string path;  // decoded
};

std::string formatBatchLine(const ListedRecord &record);

// Returns false if the line lacks a field or its newline: a path that was cut off could name another
// object.
bool parseBatchLine(std::string_view line, BatchLine *out);
