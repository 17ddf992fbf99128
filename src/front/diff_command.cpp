// fset diff: shows what a restore would change.
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "front/choice.h"
#include "front/commands.h"
#include "front/difference.h"
#include "front/difference_view.h"
#include "front/find_fileset.h"
#include "front/json.h"
#include "front/snapshot_store.h"
#include "front/text.h"
#include "front/when.h"
#include "messages/front_texts.h"

namespace front {

namespace {

// Prints the same object as print() would, but one member at a time, so that a million differences need
// not be one object in memory.
void printJson(const Request &request, const Fileset &fileset, const Snapshot &snapshot,
               const Summary &summary, Verdict verdict, const std::vector<std::string> &objects) {
  Json object{{"command", request.command}, {"fileset", jsonOf(fileset)}};
  object["snapshot"] = jsonOf(snapshot);
  object["equal"] = verdict == Verdict::kEqual;
  object["complete"] = verdict != Verdict::kTrouble;
  object["summary"] = jsonOf(summary);
  if (request.stat) return print(object);
  std::string text = object.dump(2);
  text.resize(text.size() - 2);  // cut off "\n}"
  printf("%s,\n  \"differences\": [", text.c_str());
  const char *separator = "\n    ";
  for (const std::string &one : objects) {
    printf("%s%s", separator, one.c_str());
    separator = ",\n    ";
  }
  printf("%s]\n}\n", objects.empty() ? "" : "\n  ");
  flushOutput();
}

}  // namespace

int diffCommand(const Request &request) {
  const Fileset fileset = findFileset(request.place, false);
  const std::vector<Snapshot> all = fileset.store->list(fileset);
  const int64_t now = time(nullptr);
  const Snapshot &snapshot = chooseSnapshot(all, request.snapshot, fileset, now);
  const bool colour = inColour();
  std::vector<std::string> objects;  // kept, because the summary comes first
  DifferenceReader::Sink keep;
  if (!request.stat)
    keep = [&](const ChangedObject &one) {
      objects.push_back(request.json ? jsonOf(one).dump() : objectLine(one, colour));
    };
  Summary summary;
  const Verdict verdict = compareWith(fileset, snapshot, request.full, keep, &summary);
  if (request.json) {
    printJson(request, fileset, snapshot, summary, verdict, objects);
    return static_cast<int>(verdict);
  }
  const std::string when = localTime(snapshot.created), age = ageText(now - snapshot.created);
  if (summary.lines == 0) {
    if (verdict == Verdict::kEqual)
      printf(
          "%s\n",
          frontText(FrontText::kEqual, shown(fileset.name()), shown(snapshot.name), when, age).c_str());
  } else {
    printf("%s\n%s",
           frontText(FrontText::kDiffTitle, shown(fileset.name()), shown(snapshot.name), when, age)
               .c_str(),
           summaryText(summary).c_str());
    if (!request.stat) printf("\n");
    for (const std::string &line : objects) fputs(line.c_str(), stdout);
  }
  flushOutput();
  return static_cast<int>(verdict);
}

}  // namespace front
