#include "record/batch_line.h"

#include <charconv>

namespace {

bool isBlank(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

void skipBlanks(std::string_view &text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
}

bool takeNumber(std::string_view &text, uint64_t *value) {
  skipBlanks(text);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<size_t>(end - text.data()));
  return true;
}

}  // namespace

bool parseBatchLine(std::string_view line, BatchLine *out) {
  BatchLine parsed;
  uint64_t unused = 0;
  if (!takeNumber(line, &parsed.ino) || !takeNumber(line, &unused) || !takeNumber(line, &unused))
    return false;
  skipBlanks(line);
  size_t length = 0;
  while (length < line.size() && !isBlank(line[length])) ++length;
  if (length == 0 || length > kOpStringMax) return false;
  parsed.opString = line.substr(0, length);
  line.remove_prefix(length);
  skipBlanks(line);
  if (!line.starts_with("-- ")) return false;
  line.remove_prefix(3);
  parsed.path = decodeBatchPath(line);
  *out = std::move(parsed);
  return true;
}

std::string decodeBatchPath(std::string_view text) {
  text = text.substr(0, text.find('\n'));
  std::string path;
  path.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      path += text[i];
      continue;
    }
    const char next = text[++i];
    path += next == 'n' ? '\n' : next == 't' ? '\t' : next;
  }
  return path;
}
