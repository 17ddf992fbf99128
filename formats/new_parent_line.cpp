#include "formats/new_parent_line.h"

#include <charconv>

std::string formatNewParentLine(uint64_t ino) {
  return std::to_string(ino) + "\n";
}

bool takeLastNewParent(std::string_view *rest, uint64_t *ino) {
  for (size_t end = rest->rfind('\n'); end != std::string_view::npos; end = rest->rfind('\n')) {
    std::string_view line = rest->substr(0, end);
    const size_t start = line.rfind('\n') + 1;  // 0 without a newline
    line.remove_prefix(start);
    *rest = rest->substr(0, start);
    const char *const stop = line.data() + line.size();
    const auto [parsed, error] = std::from_chars(line.data(), stop, *ino);
    if (error == std::errc() && parsed == stop) return true;
  }
  return false;
}
