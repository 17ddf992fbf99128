#include "object/clear_flags.h"

#include <cerrno>
#include <string_view>

#include "object/control_request.h"
#include "object/new_dir_list.h"
#include "object/object_stat.h"
#include "object/snap_path.h"
#include "run/descriptor.h"
#include "run/path.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

constexpr int kMostRetries = 50;
constexpr int kMostBare = 10;
constexpr int kMostRedirects = 1000;  // temporary locations that became links to others

enum class Found { kFlagged, kPlain, kMissing, kLink, kFailed };

// Clears the flags of one object; only flags that are set are written.
Found clearOne(const std::string &path, struct stat *st, int *code) {
  *code = 1;
  Descriptor fd(openObject(path));
  if (!fd) return errno == ENOENT ? Found::kMissing : Found::kFailed;
  if (fstat(fd.get(), st) != 0) return Found::kFailed;
  if (S_ISLNK(st->st_mode)) return Found::kLink;
  if (!S_ISREG(st->st_mode) && !S_ISDIR(st->st_mode)) return Found::kPlain;
  *code = 2;
  InodeFlags flags;
  if (getInodeFlags(fd.get(), &flags) != 0) return Found::kFailed;
  if (!flags.immutable && !flags.appendOnly) return Found::kPlain;
  return clearInodeFlags(fd.get()) == 0 ? Found::kFlagged : Found::kFailed;
}

// 1 when the snapshot has the directory `ino`, 0, or -1 and errno.
int snapshotHas(uint64_t ino) {
  Inode snap = openInode(handles.oldFsP, ino);
  if (!snap) return errno == ENOENT ? 0 : -1;
  if (!isDirectory(snap->if_mode)) return 0;
  Inode active = openInode(handles.activeFsP, ino);
  if (!active) return errno == ENOENT ? 0 : -1;
  return kest_same_file(active.get(), snap.get()) == 1;
}

bool directoriesStand() {
  const int32_t phase = settings.phase;
  return settings.dirsSettled || phase == kPhaseDirs || phase == kPhaseClones || phase == kPhaseLinks;
}

// A flag of a directory that belongs to the snapshot is owed: the last phase sets it again. No
// directory that only the active fileset had is left once the directories stand; one that was made
// again has another number then.
int listOwedFlags(const std::string &path, uint64_t ino) {
  const int has = snapshotHas(ino);
  if (has != 0) return has < 0 ? -1 : listNewDir(path, ino);
  if (!directoriesStand()) return 0;
  std::string snap_path;
  uint64_t snap_ino = 0;
  bool absent = false;
  if (getSnapPath(path, true, &snap_path, &snap_ino, &absent) != 0) return absent ? 0 : -1;
  Inode snap = openInode(handles.oldFsP, snap_ino);
  if (!snap) return errno == ENOENT ? 0 : -1;
  return isDirectory(snap->if_mode) ? listNewDir(path, snap_ino) : 0;
}

// The work directory and its buckets carry no flags, and nothing above them stands in the way.
bool isWorkDirItself(const std::string &path) {
  if (path == settings.shareDir) return true;
  if (!inWorkDir(path)) return false;
  return path.find('/', settings.shareDir.size() + 1) == std::string::npos;
}

int clearingFailed(const std::string &path, int code, int err) {
  traceLog("clearImuAndApdFlags: path %s, rc %d, code %d, err %d\n", path.c_str(), -1, code, err);
  errno = err;
  return -1;
}

}  // namespace

int clearImuAndApdFlags(const std::string &path) {
  if (settings.Verb) traceLog("clearImuAndApdFlags: path %s\n", path.c_str());
  if (handles.rootPath.empty()) {
    traceLog("clearImuAndApdFlags: cannot get fileset root path\n");
    return clearingFailed(path, 11, ENOENT);
  }
  std::string work = path;
  int redirects = 0;
  for (bool first = true; work != handles.rootPath && !isWorkDirItself(work); first = false) {
    traceLog("clearImuAndApdFlags: path %s\n", work.c_str());
    struct stat st;
    int code = 0;
    const Found found = clearOne(work, &st, &code);
    if (found == Found::kFailed || (found == Found::kMissing && !first))
      return clearingFailed(path, code, errno);
    if (found == Found::kLink && !first) {
      // A directory that has gone home left a link: its ancestors are there now. Home may itself still
      // wait in a temporary location, so one link is followed at a time.
      std::string home;
      if (!inWorkDir(work) || ++redirects > kMostRedirects) return clearingFailed(path, code, ELOOP);
      if (readLinkTarget(work, &home) != 0) return clearingFailed(path, code, errno);
      work = home;
      continue;
    }
    if (found == Found::kFlagged && !first && listOwedFlags(work, st.st_ino) != 0)
      return clearingFailed(path, 3, errno);
    const size_t length = work.size();
    cutPath(work);
    if (work.size() == length) return clearingFailed(path, 1, EINVAL);  // not below the root
  }
  return 0;
}

int clearObjectFlags(const std::string &path) {
  struct stat st;
  int code = 0;
  switch (clearOne(path, &st, &code)) {
    case Found::kFlagged:
      return 1;
    case Found::kFailed:
      return clearingFailed(path, code, errno);
    default:
      return 0;
  }
}

int retryClearing(const std::string &path, const std::string &other, const std::function<int()> &step,
                  bool *clearing_failed) {
  if (clearing_failed != nullptr) *clearing_failed = false;
  int bare = 0;  // EPERM although the object carried no flag: something else may be the reason
  for (int left = kMostRetries;; --left) {
    if (step() == 0) return 0;
    const int err = errno != 0 ? errno : EIO;
    if ((err != EROFS && err != EPERM) || left == 0 || bare > kMostBare) {
      errno = err;
      return err;
    }
    int cleared = 0;
    if (err == EPERM) {
      cleared = clearObjectFlags(path);
      // The first time another worker may just have cleared it.
      if (cleared > 0 || (cleared == 0 && ++bare < 2)) continue;
    }
    if (cleared == 0) cleared = clearImuAndApdFlags(path);
    if (cleared == 0 && !other.empty()) cleared = clearImuAndApdFlags(other);
    if (cleared != 0) {
      if (clearing_failed != nullptr) *clearing_failed = true;
      errno = err;
      return err;
    }
  }
}
