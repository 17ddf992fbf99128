#include "formats/checkpoint.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>

std::string formatCheckpointLine(uint64_t ino, std::string_view opString) {
  char head[32];
  snprintf(head, sizeof head, "%" PRIx64 " ", ino);
  return std::string(head).append(opString).append(1, '\n');
}

bool parseCheckpointLine(std::string_view line, uint64_t *ino, std::string_view *opString) {
  if (line.ends_with('\n')) line.remove_suffix(1);
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number, 16);
  if (error != std::errc()) return false;
  line.remove_prefix(static_cast<size_t>(end - line.data()));
  if (!line.starts_with(' ')) return false;
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  line = line.substr(0, line.find(' '));
  if (line.empty()) return false;
  *ino = number;
  *opString = line;
  return true;
}
