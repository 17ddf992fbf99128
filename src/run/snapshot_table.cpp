#include "run/snapshot_table.h"

#include <algorithm>
#include <charconv>
#include <vector>

#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

constexpr size_t kFilesetWord = 8;  // name, id, six words, fileset

std::vector<std::string_view> words(std::string_view line) {
  std::vector<std::string_view> found;
  for (size_t at = 0; (at = line.find_first_not_of(" \t", at)) != std::string_view::npos;) {
    const size_t end = std::min(line.find_first_of(" \t", at), line.size());
    found.push_back(line.substr(at, end - at));
    at = end;
  }
  return found;
}

bool octal(char c) {
  return c >= '0' && c <= '7';
}

std::string unescape(std::string_view word) {
  std::string text;
  for (size_t i = 0; i < word.size(); ++i) {
    if (word[i] == '\\' && i + 3 < word.size() && octal(word[i + 1]) && octal(word[i + 2]) &&
        octal(word[i + 3])) {
      text +=
          static_cast<char>((word[i + 1] - '0') * 64 + (word[i + 2] - '0') * 8 + (word[i + 3] - '0'));
      i += 3;
    } else {
      text += word[i];
    }
  }
  return text;
}

}  // namespace

SnapshotTable parseSnapshotList(std::string_view text) {
  SnapshotTable table;
  bool behind_header = false;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    if (!behind_header) {
      behind_header = line.find("Directory") != std::string_view::npos;
      continue;
    }
    const std::vector<std::string_view> word = words(line);
    if (word.size() <= kFilesetWord) continue;
    int64_t id = 0;
    const auto [end, error] = std::from_chars(word[1].data(), word[1].data() + word[1].size(), id);
    if (error == std::errc() && end == word[1].data() + word[1].size())
      table.emplace(id, unescape(word[0]));
  }
  return table;
}

const SnapshotTable &snapshotTable() {
  static const SnapshotTable table = [] {
    std::string text;
    if (!readWholeFile(workPath(kSnapList), &text))
      traceLog("Cannot list all snapshots in %s\n", settings.deviceP.c_str());
    return parseSnapshotList(text);
  }();
  return table;
}
