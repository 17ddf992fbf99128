#include "run/snapshot_table.h"

#include <algorithm>
#include <charconv>
#include <vector>

#include "base/octal.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

constexpr size_t kFilesetWord = 8;  // index of the fileset's name: after name, id and six words

std::vector<std::string_view> words(std::string_view line) {
  std::vector<std::string_view> found;
  for (size_t at = 0; (at = line.find_first_not_of(" \t", at)) != std::string_view::npos;) {
    const size_t end = std::min(line.find_first_of(" \t", at), line.size());
    found.push_back(line.substr(at, end - at));
    at = end;
  }
  return found;
}

}  // namespace

SnapshotTable parseSnapshotList(std::string_view text) {
  SnapshotTable table;
  bool after_header = false;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    if (!after_header) {
      after_header = line.find("Directory") != std::string_view::npos;
      continue;
    }
    const std::vector<std::string_view> word = words(line);
    if (word.size() <= kFilesetWord) continue;
    int64_t id = 0;
    const auto [end, error] = std::from_chars(word[1].data(), word[1].data() + word[1].size(), id);
    if (error == std::errc() && end == word[1].data() + word[1].size())
      table.emplace(id, octalUnescaped(word[0]));
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
