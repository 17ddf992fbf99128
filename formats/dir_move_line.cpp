#include "formats/dir_move_line.h"

#include <algorithm>
#include <charconv>

std::string formatDirMoveLine(uint64_t ino) {
  return std::to_string(ino) + "\n";
}

bool takeDirMoveLine(std::string_view *rest, std::string *line, uint64_t *ino) {
  *line = rest->substr(0, rest->find('\n'));
  const bool ended = line->size() < rest->size();
  rest->remove_prefix(std::min(rest->size(), line->size() + 1));
  const char *const stop = line->data() + line->size();
  const auto [end, error] = std::from_chars(line->data(), stop, *ino);
  return ended && error == std::errc() && end == stop;
}
