#include "formats/batch_line.h"

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <utility>

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

std::string unescaped(std::string_view text) {
  std::string path;
  path.reserve(text.size());
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\\' || at + 1 == text.size()) {
      path += text[at];
      continue;
    }
    const char next = text[++at];
    path += next == 'n' ? '\n' : next == 't' ? '\t' : next;
  }
  return path;
}

}  // namespace

std::string formatBatchLine(const ListedRecord &record) {
  char head[96];
  snprintf(head, sizeof head, "%" PRIu64 " %" PRIu64 " %" PRIu64 "  ", record.ino, record.generation,
           record.snapshot);
  std::string line(head);
  line.reserve(line.size() + record.opString.size() + record.path.size() + 8);
  line.append(record.opString).append(" -- ");
  for (const char c : record.path) {
    if (c == '\n' || c == '\t' || c == '\\') line += '\\';
    line += c == '\n' ? 'n' : c == '\t' ? 't' : c;
  }
  return line.append(1, '\n');
}

bool parseBatchLine(std::string_view line, BatchLine *out) {
  const size_t end = line.find('\n');
  if (end == std::string_view::npos) return false;
  line = line.substr(0, end);
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
  parsed.path = unescaped(line.substr(3));
  *out = std::move(parsed);
  return true;
}
