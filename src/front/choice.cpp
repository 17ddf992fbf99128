#include "front/choice.h"

#include <algorithm>
#include <charconv>

#include "front/snapshot_store.h"
#include "front/text.h"
#include "front/trouble.h"
#include "front/when.h"
#include "messages/front_texts.h"

namespace front {

namespace {

bool hasNumber(const Snapshot &one, std::string_view word) {
  if (word.starts_with('#')) word.remove_prefix(1);
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  return !word.empty() && error == std::errc() && end == word.data() + word.size() &&
         one.number == number;
}

template <typename Test>
std::vector<const Snapshot *> those(const std::vector<Snapshot> &all, Test test) {
  std::vector<const Snapshot *> found;
  for (const Snapshot &one : all)
    if (test(one)) found.push_back(&one);
  return found;
}

// The ways to name a snapshot are tried in order; the first that matches any decides.
std::vector<const Snapshot *> byName(const std::vector<Snapshot> &all, const std::string &word,
                                     const Fileset &fileset) {
  std::string path = word;
  while (path.starts_with('/')) path.erase(0, 1);
  while (path.ends_with('/')) path.pop_back();
  auto found = those(all, [&](const Snapshot &one) { return one.path == path || one.name == word; });
  if (found.empty()) found = those(all, [&](const Snapshot &one) { return hasNumber(one, word); });
  if (found.empty())
    found = those(all, [&](const Snapshot &one) { return lastComponent(one.path) == word; });
  if (!found.empty() || word.find('/') == std::string::npos) return found;
  return those(all, [&](const Snapshot &one) { return fileset.store->leadsTo(word, fileset, one); });
}

std::vector<std::string> namesOf(const std::vector<const Snapshot *> &these) {
  std::vector<std::string> names;
  for (const Snapshot *one : these) names.push_back(one->path);
  return names;
}

// Returns true for a snapshot that times and "latest" can mean. Timeshift keeps its snapshots writable.
bool isAState(const Snapshot &one) {
  return one.maker != Maker::kFset && (one.read_only || one.maker == Maker::kTimeshift);
}

}  // namespace

const Snapshot &chooseSnapshot(const std::vector<Snapshot> &all, const std::string &word,
                               const Fileset &fileset, int64_t now) {
  if (all.empty()) throw Trouble(frontText(FrontText::kNoSnapshots, shown(fileset.name())));
  const auto named = byName(all, word, fileset);
  if (named.size() > 1) throw Trouble(frontText(FrontText::kAmbiguous, shown(word)), namesOf(named));
  if (named.size() == 1) return *named.front();
  const auto moment = word == "latest" ? std::optional<int64_t>(INT64_MAX) : momentOf(word, now);
  if (!moment) throw Trouble(frontText(FrontText::kNoSuchSnapshot, shown(fileset.name()), shown(word)));
  for (const Snapshot &one : all)
    if (isAState(one) && one.created <= *moment) return one;
  if (word == "latest") throw Trouble(frontText(FrontText::kNoSnapshots, shown(fileset.name())));
  throw Trouble(frontText(FrontText::kNoneSoOld, shown(fileset.name()), localTime(*moment)));
}

const Snapshot &chooseUndo(const std::vector<Snapshot> &all, const Fileset &fileset) {
  for (const Snapshot &one : all)
    if (one.backup == Backup::kBeforeRestore && one.parent == fileset.uuid) return one;
  throw Trouble(frontText(FrontText::kNothingToUndo, shown(fileset.name())));
}

}  // namespace front
