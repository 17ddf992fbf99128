#include "record/record_format.h"

#include <cerrno>
#include <charconv>
#include <cstdio>

namespace {

// Reads a number at the start of `text` and moves `text` behind it.
template <typename T>
bool takeNumber(std::string_view &text, T *value, int base = 10) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value, base);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<size_t>(end - text.data()));
  return true;
}

bool takeText(std::string_view &text, std::string_view expected) {
  if (!text.starts_with(expected)) return false;
  text.remove_prefix(expected.size());
  return true;
}

// "<length>!" and that many bytes.
bool takeCounted(std::string_view &text, std::string_view *value) {
  int32_t length = 0;
  if (!takeNumber(text, &length) || length < 0 || !takeText(text, "!")) return false;
  if (text.size() < static_cast<size_t>(length)) return false;
  *value = text.substr(0, static_cast<size_t>(length));
  text.remove_prefix(static_cast<size_t>(length));
  return true;
}

}  // namespace

std::string formatOpString(int32_t opCode, int64_t offset, uint64_t length, int32_t holeFound,
                           int32_t clone) {
  char text[128];
  snprintf(text, sizeof text, "%d,%ld,%lu,%d,%d", opCode, offset, length, holeFound, clone);
  return text;
}

bool parseOpString(std::string_view text, OpString *out) {
  OpString op;
  if (!takeNumber(text, &op.opCode) || !takeText(text, ",") || !takeNumber(text, &op.offset) ||
      !takeText(text, ",") || !takeNumber(text, &op.length) || !takeText(text, ",") ||
      !takeNumber(text, &op.holeFound) || !takeText(text, ",") || !takeNumber(text, &op.clone))
    return false;
  *out = op;
  return true;
}

std::string formatListRecord(int64_t aggregate, uint64_t ino, std::string_view path,
                             std::string_view opString) {
  char head[96];
  snprintf(head, sizeof head, "%lld:0:%11llx:0:0:0:0:0:%d!", static_cast<long long>(aggregate),
           static_cast<unsigned long long>(ino), static_cast<int>(path.size()));
  char middle[32];
  snprintf(middle, sizeof middle, ":0!;%d!", static_cast<int>(opString.size()));
  std::string record(head);
  record.reserve(record.size() + path.size() + opString.size() + 32);
  record.append(path).append(middle).append(opString).append(1, '\n');
  return record;
}

int writeListRecord(WorkFile &stream, int64_t aggregate, uint64_t ino, std::string_view path,
                    std::string_view opString) {
  return stream.append(formatListRecord(aggregate, ino, path, opString));
}

bool parseListRecord(std::string_view text, size_t *position, ListRecordFields *out) {
  if (*position >= text.size()) return false;
  const std::string_view start = text.substr(*position);
  std::string_view rest = start;
  ListRecordFields fields;
  if (!takeNumber(rest, &fields.aggregate) || !takeText(rest, ":0:")) return false;
  while (takeText(rest, " ")) {
  }
  if (!takeNumber(rest, &fields.ino, 16) || !takeText(rest, ":0:0:0:0:0:") ||
      !takeCounted(rest, &fields.path) || !takeText(rest, ":0!;") ||
      !takeCounted(rest, &fields.opString) || !takeText(rest, "\n"))
    return false;
  fields.whole = start.substr(0, start.size() - rest.size());
  *position += fields.whole.size();
  *out = fields;
  return true;
}

int readListRecord(FileReader &list, ListRecordFields *out) {
  std::string_view text;
  if (!list.peek(kListRecordMax, &text)) return -1;
  if (text.empty()) return 0;
  size_t length = 0;
  if (!parseListRecord(text.substr(0, kListRecordMax), &length, out)) {
    errno = EINVAL;
    return -1;
  }
  list.skip(length);
  return 1;
}
