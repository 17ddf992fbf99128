#include "formats/error_marker.h"

#include <charconv>

std::string formatErrorLine(int code) {
  return std::to_string(code) + "\n";
}

bool parseErrorMarker(std::string_view text, int *code) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *code);
  return error == std::errc() && *code > 0;
}
