// fset list: shows the snapshots to which a fileset can be restored.
#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

#include "front/commands.h"
#include "front/find_fileset.h"
#include "front/json.h"
#include "front/snapshot_store.h"
#include "front/text.h"
#include "front/when.h"
#include "messages/front_texts.h"

namespace front {

namespace {

constexpr size_t kColumns = 5;
using Row = std::array<std::string, kColumns>;

std::string madeBy(const Snapshot &one) {
  std::string text = makerName(one.maker);
  if (!one.description.empty()) text += ": " + shown(one.description);
  if (!one.read_only) text += " " + frontText(FrontText::kWritable);
  return text;
}

void printTable(const Fileset &fileset, const std::vector<Snapshot> &all) {
  const int64_t now = time(nullptr);
  std::vector<Row> rows{{frontText(FrontText::kCreatedColumn), frontText(FrontText::kAgeColumn),
                         frontText(FrontText::kNameColumn), frontText(FrontText::kMakerColumn),
                         frontText(FrontText::kPathColumn)}};
  for (const Snapshot &one : all)
    rows.push_back({localTime(one.created), ageText(now - one.created), shown(one.name), madeBy(one),
                    shown(one.path)});
  std::array<size_t, kColumns> widths{};
  for (const Row &row : rows)
    for (size_t at = 0; at < kColumns; ++at) widths[at] = std::max(widths[at], columns(row[at]));
  printf("%s\n", frontText(FrontText::kListTitle, shown(fileset.name())).c_str());
  for (size_t line = 0; line < rows.size(); ++line) {
    std::string text = line > 0 && all[line - 1].maker == Maker::kFset ? "* " : "  ";
    for (size_t at = 0; at + 1 < kColumns; ++at) text += padded(rows[line][at], widths[at] + 2);
    printf("%s%s\n", text.c_str(), rows[line].back().c_str());
  }
}

}  // namespace

int listCommand(const Request &request) {
  const Fileset fileset = findFileset(request.place, false);
  const std::vector<Snapshot> all = fileset.store->list(fileset);
  if (request.json) {
    Json object{{"command", request.command}, {"fileset", jsonOf(fileset)}};
    object["snapshots"] = Json::array();
    for (const Snapshot &one : all) object["snapshots"].push_back(jsonOf(one));
    print(object);
    return kDone;
  }
  if (all.empty())
    printf("%s\n", frontText(FrontText::kNoSnapshots, shown(fileset.name())).c_str());
  else
    printTable(fileset, all);
  flushOutput();
  return kDone;
}

}  // namespace front
