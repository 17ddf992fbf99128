#include "object/flags.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>

#include "base/unique_fd.h"
#include "kest.h"
#include "object/paths.h"
#include "object/places.h"
#include "records/side_lists.h"
#include "run/path.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

// ---- control requests

enum Directive : int32_t {
  kSetImmutable = 5000,
  kGetImmutable = 5001,
  kSetAppendOnly = 5004,
  kGetAppendOnly = 5005,
};

struct Entry {
  int32_t length = 24;
  int32_t type;
  int32_t value = 0;
  int32_t fourth = 0;
  int32_t zero[2] = {0, 0};
};

template <int kEntries>
struct Request {
  int32_t totalLength = sizeof(Request);
  int32_t version = 1;
  int32_t errorOffset = 0;
  int32_t reserved = 0;
  Entry entries[kEntries];
};
static_assert(sizeof(Request<1>) == 40 && sizeof(Request<2>) == 64);

Result setFlag(int fd, Directive type, bool on) {
  Request<1> request{.entries = {{.type = type, .value = on, .fourth = on ? -1 : 0}}};
  return called(kest_fcntl(fd, &request));
}

// ---- clearing along a path

constexpr int kMostRetries = 50;      // other workers on the same file set its flag again
constexpr int kMostBare = 10;         // the errno can have a cause that clearing does not remove
constexpr int kMostRedirects = 1000;  // temporary locations that are links to others

// Step codes of the trace line.
enum ClearStep : int {
  kOpen = 1,  // also: a broken link on the way, or a path outside the fileset
  kClear = 2,
  kListDirectory = 3,  // in dir.new
  kActiveRoot = 11,    // the root of the fileset is unknown
};

enum class Found { kFlagged, kPlain, kMissing, kLink };

// Clears the flags of one object, if it has any.
Result clearOne(const std::string &path, Found *found, struct stat *st) {
  UniqueFd fd;
  if (Result r = openObject(path, &fd); !r) {
    *found = Found::kMissing;
    return r.err == ENOENT ? Result{} : failed(kOpen, r.err);
  }
  if (fstat(fd.get(), st) != 0) return failed(kOpen);
  *found = S_ISLNK(st->st_mode) ? Found::kLink : Found::kPlain;
  if (!S_ISREG(st->st_mode) && !S_ISDIR(st->st_mode)) return {};
  InodeFlags flags;
  if (Result r = getInodeFlags(fd.get(), &flags); !r) return failed(kClear, r.err);
  if (!flags.immutable && !flags.appendOnly) return {};
  *found = Found::kFlagged;
  const Result r = clearInodeFlags(fd.get());
  return r ? Result{} : failed(kClear, r.err);
}

// Sets *has if the snapshot holds the same directory under this number.
Result snapshotHas(uint64_t ino, bool *has) {
  *has = false;
  Inode snap, active;
  if (Result r = openIfThere(handles.oldFsP, ino, &snap); !r || !snap) return r;
  if (!isDirectory(snap->if_mode)) return {};
  if (Result r = openIfThere(handles.activeFsP, ino, &active); !r || !active) return r;
  *has = kest_same_file(active.get(), snap.get()) == 1;
  return {};
}

bool directoriesAreHome() {
  const int32_t phase = settings.phase;
  return settings.dirsSettled || phase == kPhaseDirs || phase == kPhaseClones || phase == kPhaseLinks;
}

// Lists a cleared directory for the last phase, which sets its flag again, if it belongs to the
// snapshot. After the directories have gone home, a number that the snapshot does not know is that of a
// directory that was made again; its place then shows which directory of the snapshot it replaces.
Result listClearedDirectory(const std::string &path, uint64_t ino) {
  bool has = false;
  if (Result r = snapshotHas(ino, &has); !r) return r;
  if (has) return listNewDir(path, ino);
  if (!directoriesAreHome()) return {};
  SnapPlace place;
  if (Result r = getSnapPath(path, &place); !r) return place.absent ? Result{} : r;
  Inode snap;
  if (Result r = openIfThere(handles.oldFsP, place.ino, &snap); !r || !snap) return r;
  return isDirectory(snap->if_mode) ? listNewDir(path, place.ino) : Result{};
}

// The work directory and its buckets carry no flags, and flags above them do not affect what is in
// them.
bool isWorkDirItself(const std::string &path) {
  if (path == settings.shareDir) return true;
  return inWorkDir(path) && nameInWorkDir(path).find('/') == std::string_view::npos;
}

// A directory that went home left a link at its temporary location, so continue with the ancestors of
// its destination. That can lie in another temporary location, so follow one link at a time.
Result followLink(std::string *work, int *redirects) {
  std::string target;
  if (!inWorkDir(*work) || ++*redirects > kMostRedirects) return failed(kOpen, ELOOP);
  if (Result r = readLinkTarget(*work, &target); !r) return failed(kOpen, r.err);
  *work = std::move(target);
  return {};
}

Result clearAlong(const std::string &path) {
  if (handles.rootPath.empty()) {
    traceLog("clearImuAndApdFlags: cannot get fileset root path\n");
    return failed(kActiveRoot, ENOENT);
  }
  std::string work = path;
  int redirects = 0;
  for (bool first = true; work != handles.rootPath && !isWorkDirItself(work); first = false) {
    traceLog("clearImuAndApdFlags: path %s\n", work.c_str());
    struct stat st;
    Found found = Found::kPlain;
    if (Result r = clearOne(work, &found, &st); !r) return r;
    if (found == Found::kMissing && !first) return failed(kOpen, ENOENT);
    if (found == Found::kLink && !first) {
      if (Result r = followLink(&work, &redirects); !r) return r;
      continue;
    }
    if (found == Found::kFlagged && !first) {
      if (Result r = listClearedDirectory(work, st.st_ino); !r) return failed(kListDirectory, r.err);
    }
    const size_t length = work.size();
    cutPath(work);
    if (work.size() == length) return failed(kOpen, EINVAL);  // not below the root
  }
  return {};
}

Result traced(const std::string &path, const Result &r) {
  if (!r) {
    traceLog("clearImuAndApdFlags: path %s, rc %d, code %d, err %d\n", path.c_str(), r.rc, r.code,
             r.err);
  }
  return r;
}

}  // namespace

Result getInodeFlags(int fd, InodeFlags *flags) {
  Request<2> request{.entries = {{.type = kGetImmutable}, {.type = kGetAppendOnly}}};
  if (Result r = called(kest_fcntl(fd, &request)); !r) return r;
  flags->immutable = request.entries[0].value != 0;
  flags->appendOnly = request.entries[1].value != 0;
  return {};
}

Result clearInodeFlags(int fd) {
  Request<2> request{.entries = {{.type = kSetImmutable}, {.type = kSetAppendOnly}}};
  return called(kest_fcntl(fd, &request));
}

Result setImmutableFlag(int fd, bool on) {
  return setFlag(fd, kSetImmutable, on);
}

Result setAppendOnlyFlag(int fd, bool on) {
  return setFlag(fd, kSetAppendOnly, on);
}

Result clearImuAndApdFlags(const std::string &path) {
  if (settings.Verb) traceLog("clearImuAndApdFlags: path %s\n", path.c_str());
  return traced(path, clearAlong(path));
}

namespace {

// Clears the flags of the object alone; *cleared tells whether it had any. rc of a failure is -1.
Result clearObjectFlags(const std::string &path, bool *cleared) {
  struct stat st;
  Found found = Found::kPlain;
  const Result r = traced(path, clearOne(path, &found, &st));
  *cleared = r && found == Found::kFlagged;
  return r;
}

}  // namespace

Result retryClearing(const std::string &path, const std::string &other,
                     const std::function<Result()> &step, bool *clearing_failed) {
  if (clearing_failed != nullptr) *clearing_failed = false;
  int bare = 0;  // EPERM although the object carries no flag, so the cause may lie elsewhere
  for (int left = kMostRetries;; --left) {
    const Result done = step();
    if (done) return done;
    const Result failure = failedErrno(done.code, done.err);
    const int err = failure.err;
    if ((err != EROFS && err != EPERM) || left == 0 || bare > kMostBare) return failure;
    Result clearing;
    if (err == EPERM) {
      bool cleared = false;
      clearing = clearObjectFlags(path, &cleared);
      // The first time, another worker may have cleared the flag between the step and this check.
      if (clearing && (cleared || ++bare < 2)) continue;
    }
    if (clearing) clearing = clearImuAndApdFlags(path);
    if (clearing && !other.empty()) clearing = clearImuAndApdFlags(other);
    if (!clearing) {
      if (clearing_failed != nullptr) *clearing_failed = true;
      return failure;
    }
  }
}
