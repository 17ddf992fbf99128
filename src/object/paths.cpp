#include "object/paths.h"

#include <unistd.h>

#include <algorithm>
#include <climits>

#include "run/path.h"
#include "run/run_handles.h"
#include "run/work_dir.h"

namespace {

// A link can lead to a directory inside another temporary location, which is a link again, and so on.
constexpr int kMostLinks = 1000;

// Each root can lie below the other, so the longer matching root decides.
kest_fssnap_handle_t *handleOf(const std::string &path) {
  const std::string &snap = handles.snapRootPath, &active = handles.rootPath;
  if (snap.empty() || !liesIn(path, snap)) return handles.activeFsP;
  return liesIn(path, active) && active.size() > snap.size() ? handles.activeFsP : handles.oldFsP;
}

uid_t ownUser() {
  static const uid_t uid = geteuid();
  return uid;
}

// Returns true, and the target, for a link that a restore left. A link of a user that was moved aside
// is recognised by its inode number, which is the location's own.
bool isOwnLink(const std::string &location, uint64_t ino, std::string *target) {
  struct stat st;
  return statPath(location, &st) && S_ISLNK(st.st_mode) && st.st_uid == ownUser() && st.st_ino != ino &&
         readLinkTarget(location, target);
}

}  // namespace

std::string resolveOwnLinks(const std::string &path) {
  std::string now = path;
  for (int links = 0; links < kMostLinks && inWorkDir(now); ++links) {
    TempPlace place;
    if (!parseTempPlace(nameInWorkDir(now), &place) || place.inside.empty()) break;
    std::string target;
    if (!isOwnLink(now.substr(0, now.size() - place.inside.size() - 1), place.ino, &target)) break;
    now = target.append(1, '/').append(place.inside);
  }
  return now;
}

Result statPath(const std::string &path, struct stat *st) {
  const std::string now = resolveOwnLinks(path);
  return called(kest_lstat(handleOf(now), now.c_str(), st));
}

Result openObject(const std::string &path, UniqueFd *fd) {
  const std::string now = resolveOwnLinks(path);
  fd->reset(kest_open_path(handleOf(now), now.c_str()));
  return *fd ? Result{} : failedErrno(0);
}

Result readLinkTarget(const std::string &path, std::string *target) {
  UniqueFd fd;
  if (Result r = openObject(path, &fd); !r) return r;
  struct stat st;
  if (fstat(fd.get(), &st) != 0) return failedErrno(0);
  if (!S_ISLNK(st.st_mode)) return errnoResult(EINVAL);
  target->resize(PATH_MAX);  // no link target is longer
  const ssize_t length = readlinkat(fd.get(), "", target->data(), target->size());
  if (length < 0) return failedErrno(0);
  target->resize(static_cast<size_t>(length));
  return {};
}

bool isInodeOrReplacement(const struct stat &st, uint64_t ino, const kest_iattr64_t &attr) {
  if (st.st_ino == ino) return true;
  const auto names = static_cast<uint64_t>(std::max<int64_t>(attr.ia_nlink, 1));
  // More names than in the snapshot mean that somebody has linked the object here.
  return (st.st_uid == ownUser() || st.st_uid == attr.ia_uid) && st.st_nlink <= names &&
         youngerThanWorkDirectory(st.st_ino);
}

bool isReplacement(const struct stat &st, const kest_ifile_t *snap) {
  kest_iattr64_t attr;
  return kest_istat(snap, &attr) == 0 && isInodeOrReplacement(st, 0, attr);
}

namespace {

struct Collector {
  const std::string &root;
  std::vector<std::string> *paths;
};

int collect(void *arg, const char *path) {
  const auto *to = static_cast<Collector *>(arg);
  std::string &whole = to->paths->emplace_back(to->root);
  if (*path == '\0') return 0;
  if (!whole.empty() && !whole.ends_with('/')) whole.append(1, '/');
  whole.append(path);
  return 0;
}

}  // namespace

Result findInodePaths(kest_fssnap_handle_t *handle, uint64_t ino, const std::string &root,
                      std::vector<std::string> *paths) {
  paths->clear();
  Collector collector{root, paths};
  return called(kest_inode_names(handle, ino, collect, &collector));
}

Result firstPath(kest_fssnap_handle_t *handle, uint64_t ino, std::string *path) {
  std::vector<std::string> paths;
  if (Result r = findInodePaths(handle, ino, "", &paths); !r) return r;
  *path = *std::min_element(paths.begin(), paths.end());
  return {};
}
