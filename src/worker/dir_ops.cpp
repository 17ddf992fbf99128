#include "worker/dir_ops.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/fd_path.h"
#include "base/unique_fd.h"
#include "messages/messages.h"
#include "object/attr_restore.h"
#include "object/junction.h"
#include "object/name_calls.h"
#include "object/paths.h"
#include "object/places.h"
#include "object/xattr_restore.h"
#include "records/side_lists.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

enum CreateStep : int {
  kCreateLists = 0,
  kOpenSnapshotDir = 1,
  kMakeDirectory = 2,  // or finding its present place
  kXAttrs = 3,
  kAttributes = 4,
  kListNewDir = 5,
};

enum DeleteStep : int {
  kLook = 2,
  kDeleteLists = 3,
  kRemove = 4,
  kUnlinkJunction = 31,
};

Result traced(const char *routine, const Record &record, const Result &result) {
  if (!result) {
    traceLog("%s: path %s, ino %lld, rc %d, code %d, error %d\n", routine, record.path.c_str(),
             static_cast<long long>(record.ino), result.rc, result.code, result.err);
  }
  return result;
}

// Runs the lists of a top directory. Of an engine that failed, only the exit status is known: it tells
// of a full file system. Otherwise the worker that failed has printed and recorded what failed, and the
// directory's record was broken off because of that.
Result runLists(const Record &record, bool deleted, int code, const ListRunner &here) {
  const Result result = restoreDelNewDir(record.ino, deleted, here);
  if (result.status == 0) return result.at(code);
  return {.rc = result.rc, .code = code, .err = result.full() ? ENOSPC : ECANCELED};
}

// Finds the place of a directory whose attributes phase 6 restores. A directory that has gone home left
// a link at its temporary location, and a path through it would name the link.
Result settledPath(const std::string &path, std::string *real) {
  *real = path;
  if (!inWorkDir(path)) return {};
  std::string home;
  struct stat st;
  if (Result r = getRealPath(path, &home); !r) return r;
  if (statPath(home, &st) || !statPath(path, &st)) *real = home;
  return {};
}

Result makeDirectory(const std::string &path, uint32_t mode) {
  const Result result = makeDir(path, mode);
  struct stat st;
  // A repeated record and phase 6 find the directory in place.
  if (!result && result.err == EEXIST && statPath(path, &st) && S_ISDIR(st.st_mode)) return {};
  return result;
}

Result makeAndRestore(const Record &record, kest_ifile_t *snap) {
  const bool last = settings.phase == kPhaseDirs;
  std::string path = record.path;
  if (last) {
    if (Result r = settledPath(record.path, &path); !r) return failed(kMakeDirectory, r.err);
  }
  if (Result r = makeDirectory(path, snap->if_mode); !r) return failed(kMakeDirectory, r.err);
  if (!settings.noXAttr) {
    if (Result r = restoreXAttr(record.ino, snap, path); !r) return r.at(kXAttrs);
  }
  if (Result r = restoreAttr(path, settings.phase); !r) return r.at(kAttributes);
  // Entries made in the directory will change its times, so phase 6 restores the attributes again.
  if (!last) {
    if (Result r = listNewDir(path, record.ino); !r) return r.at(kListNewDir);
  }
  return {};
}

Result make(const Record &record, const ListRunner &here) {
  Inode snap;
  if (Result r = openSnapshotInode(record.ino, record.path, &snap); !r)
    return failed(kOpenSnapshotDir, r.err);
  if (!isDirectory(snap->if_mode)) return failed(kOpenSnapshotDir, ENOTDIR);
  // Pass 1 makes all directories. Later passes only run the lists of their contents.
  if (settings.pass == 1 || settings.phase == kPhaseDirs) {
    if (Result r = makeAndRestore(record, snap.get()); !r) return r;
  }
  // A nested run can take long: do not hold the inode open meanwhile.
  snap.reset();
  return here ? runLists(record, true, kCreateLists, here) : Result{};
}

// Returns true if the directory has no entry at all; false also if it cannot be read.
bool reallyEmpty(const kest_ifile_t *dir) {
  const UniqueFd named(kest_path_descriptor(dir));
  if (!named) return false;
  UniqueFd fd(reopen(named.get(), O_RDONLY | O_DIRECTORY));
  const Dir stream(fd ? fdopendir(fd.get()) : nullptr);
  if (!stream) return false;
  fd.release();
  const dirent *entry = nullptr;
  return nextEntry(stream, &entry) && entry == nullptr;
}

// Returns true if a directory holds only what a restore leaves alone (snapshots, nested filesets that
// have not moved) or directories that hold only such objects. The library's listing omits those.
bool holdsOnlyHidden(uint64_t ino) {
  Inode dir;
  if (!openInode(handles.activeFsP, ino, &dir) || !isDirectory(dir->if_mode)) return false;
  bool any = false;
  for (;;) {
    const kest_direntx64_t *entry = nullptr;
    if (kest_ireaddir64(dir.get(), &entry) != 0) return false;
    if (entry == nullptr) return any || !reallyEmpty(dir.get());
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    const bool plain_directory =
        entry->d_type == DT_DIR && (entry->d_flags & (KEST_DF_JUNCTION | KEST_DF_JUNCTION2)) == 0;
    if (!plain_directory || !holdsOnlyHidden(entry->d_ino)) return false;
    any = true;
  }
}

Result removeFailed(const std::string &path, int err) {
  traceLog("delDir: delete dir %s failed, err %d\n", path.c_str(), err);
  return failed(kRemove, err);
}

// `err` tells why the directory at `path` could not be removed.
Result removeJunction(const std::string &path, int err) {
  bool junction = false;
  if (!checkJunction(path, &junction) || !junction) return removeFailed(path, err);
  if (Result r = unlinkJunction(path, path); !r) return failed(kUnlinkJunction, r.err);
  struct stat st;
  if (Result r = statPath(path, &st); !r && r.err == ENOENT) return {};
  const Result stub = removeEmptyDir(path, 0);  // the stub that the nested fileset leaves at its path
  return stub || stub.err == ENOENT ? Result{} : removeFailed(path, stub.err);
}

Result removeDirectory(const Record &record) {
  const Result result = removeEmptyDir(record.path, record.ino);
  if (result || result.err == ENOENT) return {};
  // The library never removes a nested subvolume and reports EPERM.
  if (result.err == EPERM) return removeJunction(record.path, result.err);
  if (result.err == ENOTEMPTY && holdsOnlyHidden(record.ino)) {
    traceLog("delDir: dir %s stays, it holds what is left alone\n", record.path.c_str());
    userMessage(Message::kDirKept, record.path);
    return {};
  }
  return removeFailed(record.path, result.err);
}

Result remove(const Record &record, const ListRunner &here) {
  struct stat st;
  if (Result r = statPath(record.path, &st); !r) {
    if (r.err == ENOENT) return {};
    traceLog("delDir: stat dir %s failed, err %d\n", record.path.c_str(), r.err);
    return failed(kLook, r.err);
  }
  if (here) {
    if (Result r = runLists(record, false, kDeleteLists, here); !r) return r;
  }
  // Another inode at the path was not listed, so it stays.
  return st.st_ino == record.ino ? removeDirectory(record) : Result{};
}

}  // namespace

Result crDir(const Record &record, const ListRunner &here) {
  return traced("crDir", record, make(record, here));
}

Result delDir(const Record &record, const ListRunner &here) {
  return traced("delDir", record, remove(record, here));
}
