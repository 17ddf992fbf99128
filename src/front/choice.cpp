#include "front/choice.h"

#include <btrfsutil.h>

#include <algorithm>
#include <charconv>

#include "front/text.h"
#include "front/trouble.h"
#include "front/when.h"
#include "messages/front_texts.h"

namespace front {

namespace {

std::string lastComponent(const std::string &path) {
  return path.substr(path.rfind('/') + 1);
}

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
  uint64_t id = 0;
  struct btrfs_util_subvolume_info here, there;
  if (btrfs_util_is_subvolume(word.c_str()) != BTRFS_UTIL_OK ||
      btrfs_util_subvolume_id(word.c_str(), &id) != BTRFS_UTIL_OK ||
      btrfs_util_subvolume_info(word.c_str(), 0, &there) != BTRFS_UTIL_OK ||
      btrfs_util_subvolume_info_fd(fileset.root.get(), id, &here) != BTRFS_UTIL_OK)
    return found;
  // The id alone could be that of a subvolume of another file system.
  const bool same = std::equal(std::begin(here.uuid), std::end(here.uuid), std::begin(there.uuid));
  return those(all, [&](const Snapshot &one) { return same && one.id == id; });
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
