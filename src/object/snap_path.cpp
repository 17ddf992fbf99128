#include "object/snap_path.h"

#include <cerrno>
#include <string_view>

#include "object/object_stat.h"
#include "object/path_files.h"
#include "object/temp_place.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "scan/diff_table.h"

namespace {

// Objects can wait inside objects that wait; more levels than a path has components are no such thing.
constexpr int kMostLevels = 4096;

enum class Resolve { kDone, kNoPlace, kNoFile, kEmptyFile };

// Applies the rule for temporary locations until the path has left the work directory. `place` is the
// one that could not be resolved.
Resolve leaveWorkDir(std::string *path, TempPlace *place, const char *routine) {
  for (int level = 0; inWorkDir(*path); ++level) {
    if (level > kMostLevels || !parseTempPlace(*path, place)) {
      errno = EINVAL;
      return Resolve::kNoPlace;
    }
    if (routine != nullptr) {
      traceLog("%s: filenameP %s, dirIno %lld\n", routine, std::string(place->inside).c_str(),
               static_cast<long long>(place->ino));
    }
    std::string real;
    if (!readDestination(place->ino, &real))
      return errno == ENODATA ? Resolve::kEmptyFile : Resolve::kNoFile;
    if (!place->inside.empty()) real.append(1, '/').append(place->inside);
    *path = std::move(real);
  }
  return Resolve::kDone;
}

void traceUnresolved(const char *routine, Resolve result, uint64_t ino, int err) {
  const long long number = static_cast<long long>(ino);
  if (result == Resolve::kEmptyFile) {
    traceLog("%s: failed to get dir path for dirIno %lld, err %d\n", routine, number, err);
  } else if (result == Resolve::kNoFile) {
    const std::string file = destinationFile(ino);
    traceLog("%s: open dest path file failed, dirIno %lld %s err %d\n", routine, number, file.c_str(),
             err);
  }
}

// While the walks run, an object whose name is new belongs where its destination file says. Later it
// has been moved, and its path tells. 1, 0, or -1 and errno.
int hasNewName(const std::string &path, uint64_t *ino) {
  if (settings.phase >= kPhaseMain || !haveDiffTable()) return 0;
  struct stat st;
  if (statPath(path, &st) != 0) return errno == ENOENT || errno == ENOTDIR ? 0 : -1;
  const DiffItem *item = findItem(st.st_ino);
  *ino = st.st_ino;
  return item != nullptr && (item->type & kDiffMoved);
}

int realPathFailed(const std::string &path, int rc, int code, int err) {
  traceLog("getRealPath: path %s, rc %d, code %d, error %d\n", path.c_str(), rc, code, err);
  errno = err;
  return rc;
}

int snapPathFailed(const std::string &path, int code, int err) {
  traceLog("getSnapPath: path %s, rc %d, code %d, err %d\n", path.c_str(), -1, code, err);
  errno = err;
  return -1;
}

}  // namespace

int getRealPath(const std::string &path, std::string *result) {
  uint64_t ino = 0;
  if (inWorkDir(path)) {
    std::string real = path;
    TempPlace place;
    const Resolve resolved = leaveWorkDir(&real, &place, "getRealPath");
    if (resolved != Resolve::kDone) {
      const int err = errno;
      traceUnresolved("getRealPath", resolved, place.ino, err);
      return realPathFailed(path, err, resolved == Resolve::kEmptyFile ? 2 : 1, err);
    }
    *result = std::move(real);
    traceLog("getRealPath: realPath %s\n", result->c_str());
    return 0;
  }
  const int renamed = hasNewName(path, &ino);
  if (renamed < 0) return realPathFailed(path, -1, 4, errno);
  if (renamed > 0) {
    if (int rc = getOrigPathBeforeRename(path, result, ino); rc != 0)
      return realPathFailed(path, rc, 4, errno);
    return 0;
  }
  *result = path;
  return 0;
}

int getSnapPath(const std::string &path, bool useWorkDir, std::string *result, uint64_t *snapIno,
                bool *absent) {
  if (absent != nullptr) *absent = false;
  if (handles.rootPath.empty()) {
    traceLog("getSnapPath: cannot get fileset root path\n");
    return snapPathFailed(path, 1, ENOENT);
  }
  if (handles.snapRootPath.empty()) {
    traceLog("getSnapPath: failed to get snap path. err %d\n", ENOENT);
    return snapPathFailed(path, 2, ENOENT);
  }
  std::string real = path;
  uint64_t moved_ino = 0, ino = 0;
  if (useWorkDir && inWorkDir(path)) {
    TempPlace place;
    if (parseTempPlace(path, &place) && place.inside.empty()) moved_ino = place.ino;
    const Resolve resolved = leaveWorkDir(&real, &place, nullptr);
    if (resolved != Resolve::kDone) {
      const int err = errno;
      traceUnresolved("getSnapPath", resolved, place.ino, err);
      return snapPathFailed(path, resolved == Resolve::kEmptyFile ? 22 : 21, err);
    }
  } else if (const int renamed = hasNewName(path, &ino); renamed != 0) {
    if (renamed < 0 || getOrigPathBeforeRename(path, &real, ino) != 0)
      return snapPathFailed(path, 23, errno);
  }
  if (!real.starts_with(handles.rootPath)) return snapPathFailed(path, 24, EINVAL);
  *result = handles.snapRootPath + "/" + real.substr(handles.rootPath.size());
  struct stat st;
  if (statPath(*result, &st) != 0) {
    const int err = errno;
    // The snapshot may have a link to anywhere where the active path has a directory.
    if (absent != nullptr) {
      *absent = err == ENOENT || err == ENOTDIR || err == ELOOP || err == ENAMETOOLONG;
    }
    return snapPathFailed(path, 3, err);
  }
  *snapIno = moved_ino != 0 ? moved_ino : st.st_ino;
  return 0;
}
