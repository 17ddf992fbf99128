// Batch lines: how the policy engine hands a record to a worker.
//
//   <inode, decimal> <generation> <snapshot>  <op string> -- <path>\n
//
// with backslash, newline and tab in the path written as \\, \n and \t.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "formats/list_record.h"

constexpr size_t kBatchLineMax = 16384;  // bytes, newline and terminator included

struct BatchLine {
  uint64_t ino = 0;
  std::string opString;
  std::string path;  // decoded
};

std::string formatBatchLine(const ListRecord &record);

// False when the line does not hold its items, or has no newline: a path that was cut could mean
// something else.
bool parseBatchLine(std::string_view line, BatchLine *out);
