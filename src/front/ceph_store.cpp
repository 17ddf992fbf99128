#include "front/ceph_store.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <optional>

#include "base/octal.h"
#include "formats/program_names.h"
#include "front/program.h"
#include "front/text.h"
#include "front/trouble.h"
#include "messages/front_texts.h"

namespace front {

namespace {

constexpr int kMostTries = 1000;  // backups of one fileset in one second
constexpr char kTimeAttribute[] = "ceph.snap.btime";
// CephFS lets no name of a snapshot begin with "_", but those of directories do.
constexpr char kBackupStart[] = "fset";

std::string snapFolder(const std::string &directory) {
  return directory + "/" + kSnapFolder + "/";
}

// Returns the time of a snapshot in seconds, or nothing if there is no such snapshot any more.
std::optional<int64_t> timeOf(const std::string &tree) {
  char text[64];
  const ssize_t length = getxattr(tree.c_str(), kTimeAttribute, text, sizeof text - 1);
  if (length < 0 && errno == ENOENT) return std::nullopt;
  if (length < 0) throw Trouble(frontText(FrontText::kCannotRead, shown(tree), strerror(errno)));
  text[length] = '\0';
  return strtoll(text, nullptr, 10);  // seconds, a dot, and a fraction
}

class CephStore : public SnapshotStore {
 public:
  std::vector<Snapshot> list(const Fileset &fileset) const override;
  std::vector<std::string> filesets(const Fileset &fileset) const override { return {fileset.path}; }
  bool leadsTo(const std::string &path, const Fileset &fileset, const Snapshot &one) const override;
  Snapshot takeBackup(const Fileset &fileset, Backup kind, int64_t now) const override;
};

Snapshot named(const Fileset &fileset, const std::string &name) {
  Snapshot one;
  one.name = one.word = name;
  one.path = snapFolder(fileset.path) + name;
  one.tree = snapFolder(fileset.root_path) + name;
  if (name.starts_with(std::string(kBackupStart) + "-before-")) one.backup = backupKind(name);
  if (one.backup != Backup::kNone) one.maker = Maker::kFset;
  return one;
}

std::vector<Snapshot> CephStore::list(const Fileset &fileset) const {
  std::vector<Snapshot> all;
  int lines = 0;
  const int status =
      runForLines({std::string(kProgramDir) + "ktlssnapshot", fileset.device, "-j", fileset.name()},
                  [&](std::string_view line) {
                    if (++lines <= 2) return;
                    const size_t end = std::min(line.find(' '), line.size());
                    Snapshot one = named(fileset, octalUnescaped(line.substr(0, end)));
                    line.remove_prefix(std::min(line.find_first_not_of(' ', end), line.size()));
                    std::from_chars(line.data(), line.data() + line.size(), one.id);
                    one.order = one.id;  // the numbers of snapshots grow
                    all.push_back(std::move(one));
                  });
  if (status != 0) throw Trouble(frontText(FrontText::kCannotList, shown(fileset.name())));
  std::erase_if(all, [](Snapshot &one) {
    const std::optional<int64_t> created = timeOf(one.tree);
    one.created = created.value_or(0);
    return !created;
  });
  std::sort(all.begin(), all.end(), [](const Snapshot &a, const Snapshot &b) {
    return a.created != b.created ? a.created > b.created : a.order > b.order;
  });
  return all;
}

bool CephStore::leadsTo(const std::string &path, const Fileset &, const Snapshot &one) const {
  const UniqueFd there(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  struct stat named, own;
  return there && fstat(there.get(), &named) == 0 && stat(one.tree.c_str(), &own) == 0 &&
         named.st_dev == own.st_dev && named.st_ino == own.st_ino;
}

Snapshot CephStore::takeBackup(const Fileset &fileset, Backup kind, int64_t now) const {
  // What this machine has not written back yet belongs to the present state.
  if (syncfs(fileset.root.get()) != 0) throw Trouble(frontText(FrontText::kNoBackup, strerror(errno)));
  const std::string name = kBackupStart + backupEnding(kind, now);
  for (int number = 1; number <= kMostTries; ++number) {
    const Snapshot taken = named(fileset, number == 1 ? name : name + "." + std::to_string(number));
    if (mkdirat(fileset.root.get(), (snapFolder(".") + taken.name).c_str(), 0755) == 0) return taken;
    if (errno != EEXIST) throw Trouble(frontText(FrontText::kNoBackup, strerror(errno)));
  }
  throw Trouble(frontText(FrontText::kNoBackup, strerror(EEXIST)));
}

}  // namespace

bool isSnapshotFromAbove(const std::string &name) {
  return name.starts_with('_');
}

const SnapshotStore &cephStore() {
  static const CephStore store;
  return store;
}

}  // namespace front
