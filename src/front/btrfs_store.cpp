#include "front/btrfs_store.h"

#include <btrfsutil.h>
#include <fcntl.h>
#include <string.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>

#include "base/unique_fd.h"
#include "formats/program_names.h"
#include "front/btrfs_backup.h"
#include "front/info_files.h"
#include "front/program.h"
#include "front/text.h"
#include "front/trouble.h"
#include "messages/front_texts.h"

namespace front {

namespace {

constexpr uint64_t kTopLevel = 5;

// Returns the path without its last component; "" if there is no other.
std::string parentOf(const std::string &path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

bool isNumber(std::string_view text, uint64_t *number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
  return error == std::errc() && end == text.data() + text.size();
}

size_t digitsAt(std::string_view text, size_t at) {
  size_t end = at;
  while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
  return end - at;
}

// Returns true for NAME.YYYYMMDD, with an optional Thhmm or Thhmmss, time zone, and _N for a repeated
// time.
bool hasBtrbkName(const std::string &name) {
  const size_t dot = name.rfind('.');
  if (dot == 0 || dot == std::string::npos || digitsAt(name, dot + 1) != 8) return false;
  size_t at = dot + 9;
  if (at < name.size() && name[at] == 'T') {
    const size_t digits = digitsAt(name, at + 1);
    if (digits != 4 && digits != 6) return false;
    at += 1 + digits;
    if (at < name.size() && (name[at] == '+' || name[at] == '-') && digitsAt(name, at + 1) == 4)
      at += 5;
  }
  if (at < name.size() && name[at] == '_' && digitsAt(name, at + 1) > 0)
    at += 1 + digitsAt(name, at + 1);
  return at == name.size();
}

// Reads the ids in ktlssnapshot's table: the second word of each line after the two header lines.
std::set<uint64_t> relatedIds(const Fileset &fileset) {
  std::set<uint64_t> ids;
  int lines = 0;
  const int status =
      runForLines({std::string(kProgramDir) + "ktlssnapshot", fileset.device, "-j", fileset.name()},
                  [&](std::string_view line) {
                    if (++lines <= 2) return;
                    line.remove_prefix(std::min(line.find(' '), line.size()));
                    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
                    uint64_t id;
                    if (isNumber(line.substr(0, line.find(' ')), &id)) ids.insert(id);
                  });
  if (status != 0) throw Trouble(frontText(FrontText::kCannotList, shown(fileset.name())));
  return ids;
}

void findSnapper(int top, Snapshot *one) {
  const std::string folder = parentOf(one->path);
  uint64_t number;
  if (lastComponent(one->path) != "snapshot" || !isNumber(lastComponent(folder), &number)) return;
  const auto text = readInfoFile(top, folder + "/info.xml");
  const auto info = text ? parseSnapperInfo(*text) : std::nullopt;
  // If the info file cannot be read, the usual name of the folder is sufficient evidence.
  if (info ? info->number != number : lastComponent(parentOf(folder)) != ".snapshots") return;
  one->maker = Maker::kSnapper;
  one->number = number;
  one->name = "#" + std::to_string(number);
  if (info) one->description = info->description;
}

void findTimeshift(int top, Snapshot *one) {
  const std::string folder = parentOf(one->path), above = parentOf(folder);
  if (lastComponent(above) != "snapshots" || lastComponent(parentOf(above)) != "timeshift-btrfs")
    return;
  one->maker = Maker::kTimeshift;
  one->name = lastComponent(folder);
  const auto text = readInfoFile(top, folder + "/info.json");
  if (const auto comment = text ? parseTimeshiftInfo(*text) : std::nullopt) one->description = *comment;
}

void findMaker(int top, Snapshot *one) {
  one->name = lastComponent(one->path);
  if (one->path.starts_with(std::string(kBackupFolder) + "/")) {
    one->maker = Maker::kFset;
    one->backup = backupKind(one->name);
    return;
  }
  findSnapper(top, one);
  if (one->maker == Maker::kPlain) findTimeshift(top, one);
  if (one->maker == Maker::kPlain && hasBtrbkName(one->name)) one->maker = Maker::kBtrbk;
}

void makeNamesUnique(std::vector<Snapshot> *all) {
  std::map<std::string, int> uses;
  for (const Snapshot &one : *all) ++uses[one.name];
  for (Snapshot &one : *all)
    if (uses[one.name] > 1) one.name = one.path;
}

Snapshot described(const char *path, const struct btrfs_util_subvolume_info &info) {
  Snapshot one;
  one.id = info.id;
  one.path = path;
  one.word = "/" + one.path;
  std::copy(std::begin(info.uuid), std::end(info.uuid), one.uuid.begin());
  std::copy(std::begin(info.parent_uuid), std::end(info.parent_uuid), one.parent.begin());
  one.created = info.otime.tv_sec;
  one.order = info.otransid;              // the creating transaction
  one.read_only = (info.flags & 1) != 0;  // BTRFS_ROOT_SUBVOL_RDONLY
  return one;
}

// Calls visit(path, info) for every subvolume except the top level.
template <typename Visit>
void forEachSubvolume(const Fileset &fileset, Visit visit) {
  using Iterator = btrfs_util_subvolume_iterator;
  Iterator *raw = nullptr;
  if (btrfs_util_create_subvolume_iterator_fd(fileset.root.get(), kTopLevel, 0, &raw) != BTRFS_UTIL_OK)
    throw Trouble(frontText(FrontText::kCannotRead, shown(fileset.root_path), strerror(errno)));
  const std::unique_ptr<Iterator, decltype(&btrfs_util_destroy_subvolume_iterator)> iterator(
      raw, btrfs_util_destroy_subvolume_iterator);
  for (;;) {
    char *path = nullptr;
    struct btrfs_util_subvolume_info info;
    const btrfs_util_error error =
        btrfs_util_subvolume_iterator_next_info(iterator.get(), &path, &info);
    if (error == BTRFS_UTIL_ERROR_STOP_ITERATION) return;
    if (error == BTRFS_UTIL_ERROR_SUBVOLUME_NOT_FOUND) continue;  // deleted meanwhile
    if (error != BTRFS_UTIL_OK)
      throw Trouble(frontText(FrontText::kCannotRead, shown(fileset.root_path), strerror(errno)));
    const std::unique_ptr<char, decltype(&free)> owned(path, free);
    visit(path, info);
  }
}

class BtrfsStore : public SnapshotStore {
 public:
  std::vector<Snapshot> list(const Fileset &fileset) const override;
  std::vector<std::string> filesets(const Fileset &fileset) const override;
  bool leadsTo(const std::string &path, const Fileset &fileset, const Snapshot &one) const override;
  Snapshot takeBackup(const Fileset &fileset, Backup kind, int64_t now) const override;
};

std::vector<Snapshot> BtrfsStore::list(const Fileset &fileset) const {
  const std::set<uint64_t> related = relatedIds(fileset);
  std::vector<Snapshot> all;
  const UniqueFd top(fileset.top.point().empty()
                         ? -1
                         : open(fileset.top.point().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  forEachSubvolume(fileset, [&](const char *path, const struct btrfs_util_subvolume_info &info) {
    if (!related.contains(info.id)) return;
    all.push_back(described(path, info));
    if (top) all.back().tree = fileset.top.point() + "/" + all.back().path;
    findMaker(top.get(), &all.back());
  });
  makeNamesUnique(&all);
  std::sort(all.begin(), all.end(), [](const Snapshot &a, const Snapshot &b) {
    return a.created != b.created ? a.created > b.created
           : a.order != b.order   ? a.order > b.order
                                  : a.id > b.id;
  });
  return all;
}

std::vector<std::string> BtrfsStore::filesets(const Fileset &fileset) const {
  std::vector<std::string> paths;
  forEachSubvolume(fileset, [&](const char *path, const auto &) { paths.emplace_back(path); });
  return paths;
}

bool BtrfsStore::leadsTo(const std::string &path, const Fileset &fileset, const Snapshot &one) const {
  uint64_t id = 0;
  struct btrfs_util_subvolume_info here, there;
  if (btrfs_util_is_subvolume(path.c_str()) != BTRFS_UTIL_OK ||
      btrfs_util_subvolume_id(path.c_str(), &id) != BTRFS_UTIL_OK || id != one.id ||
      btrfs_util_subvolume_info(path.c_str(), 0, &there) != BTRFS_UTIL_OK ||
      btrfs_util_subvolume_info_fd(fileset.root.get(), id, &here) != BTRFS_UTIL_OK)
    return false;
  // The id alone could be that of a subvolume of another file system.
  return std::equal(std::begin(here.uuid), std::end(here.uuid), std::begin(there.uuid));
}

Snapshot BtrfsStore::takeBackup(const Fileset &fileset, Backup kind, int64_t now) const {
  Snapshot taken;
  taken.path = takeBtrfsBackup(fileset, kind, now);
  taken.word = "/" + taken.path;
  return taken;
}

}  // namespace

const SnapshotStore &btrfsStore() {
  static const BtrfsStore store;
  return store;
}

}  // namespace front
