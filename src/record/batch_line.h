// Batch lines: how the policy engine hands a record to a worker.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

constexpr size_t kBatchLineMax = 16384;  // bytes, newline and terminator included
constexpr size_t kOpStringMax = 127;     // characters

struct BatchLine {
  uint64_t ino = 0;
  std::string opString;
  std::string path;  // decoded
};

// "<ino> <n> <n> <opString> -- <escaped path>"; false when the line does not hold its items.
bool parseBatchLine(std::string_view line, BatchLine *out);

// Cuts the text at its first newline and decodes \n, \t and \<any>.
std::string decodeBatchPath(std::string_view text);
