#include "object/places.h"

#include <cerrno>
#include <utility>

#include "formats/work_names.h"
#include "object/paths.h"
#include "run/run_handles.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

constexpr int kOpenAttempts = 2;  // first without the bucket directory, then with it
// An object can wait inside another one that waits. More levels than a path has components mean a
// cycle.
constexpr int kMostLevels = 4096;

// Step codes of the three routines in the trace log.
enum FetchStep : int {
  kCloseFile = 0,
  kMakeBucket = 1,
  kOpenFile = 2,
  kWriteFile = 3,
};
enum RealPathStep : int {
  kReadDestination = 1,   // also for a path in the work directory outside all temporary locations
  kEmptyDestination = 2,  // the destination file is empty
};
enum SnapPathStep : int {
  kActiveRoot = 1,  // the root of the fileset is unknown
  kSnapRoot = 2,    // the root of the snapshot is unknown
  kStatCopy = 3,
  kLeaveLocation = 21,
  kLeaveLocationEmpty = 22,  // the destination file is empty
  kOutsideRoot = 24,         // the object belongs outside the fileset
};

// Writes the destination file and traces a failure to write it.
Result writeDestination(const std::string &file, const std::string &path, uint64_t ino) {
  std::unique_ptr<WorkFile> stream;
  if (Result r = openBucketFile("fetchFile", file, WorkFile::Mode::kTruncate, path, ino, &stream); !r)
    return r;
  Result written = stream->append(path);
  if (written) written = stream->flush();
  if (!written) {
    traceLog("fetchFile: write path error for %s,ino %lld err %d\n", path.c_str(),
             static_cast<long long>(ino), written.err);
  }
  const Result closed = closeWorkFile(stream, file).at(kCloseFile);
  return firstFailure(written.at(kWriteFile), closed);
}

// `file` is "" if its path would be too long.
Result readPlace(const std::string &file, std::string *destination) {
  if (file.empty()) return errnoResult(ENAMETOOLONG);
  if (Result r = readWholeFile(file, destination); !r) return r;
  return errnoResult(destination->empty() ? ENODATA : 0);
}

void traceUnresolved(const char *routine, uint64_t ino, const Result &r) {
  const long long number = static_cast<long long>(ino);
  if (r.err == ENODATA) {
    traceLog("%s: failed to get dir path for dirIno %lld, err %d\n", routine, number, r.err);
  } else {
    const std::string file = destinationFile(ino);
    traceLog("%s: open dest path file failed, dirIno %lld %s err %d\n", routine, number, file.c_str(),
             r.err);
  }
}

// Replaces a temporary location at the start of `path` by its destination until the path lies outside
// the work directory. Traces each level if `levels` is set, and every failure. The step codes are
// getRealPath's.
Result leaveWorkDir(const char *routine, bool levels, std::string *path) {
  for (int level = 0; inWorkDir(*path); ++level) {
    TempPlace place;
    if (level > kMostLevels || !parseTempPlace(nameInWorkDir(*path), &place))
      return failedErrno(kReadDestination, EINVAL);
    if (levels) {
      traceLog("%s: filenameP %s, dirIno %lld\n", routine, std::string(place.inside).c_str(),
               static_cast<long long>(place.ino));
    }
    std::string real;
    if (Result r = readDestination(place.ino, &real); !r) {
      traceUnresolved(routine, place.ino, r);
      return r.at(r.err == ENODATA ? kEmptyDestination : kReadDestination);
    }
    if (!place.inside.empty()) real.append(1, '/').append(place.inside);
    *path = std::move(real);
  }
  return {};
}

Result resolveReal(const std::string &path, std::string *result) {
  if (!inWorkDir(path)) {
    *result = path;
    return {};
  }
  std::string real = path;
  if (Result r = leaveWorkDir("getRealPath", true, &real); !r) return r;
  *result = std::move(real);
  traceLog("getRealPath: realPath %s\n", result->c_str());
  return {};
}

// Finds the path at which the object belongs. *moved_ino is set if `path` is a temporary location
// itself.
Result placeOf(const std::string &path, std::string *real, uint64_t *moved_ino) {
  *real = path;
  if (!inWorkDir(path)) return {};
  TempPlace place;
  if (parseTempPlace(nameInWorkDir(path), &place) && place.inside.empty()) *moved_ino = place.ino;
  const Result left = leaveWorkDir("getSnapPath", false, real);
  if (left) return {};
  return failed(left.code == kEmptyDestination ? kLeaveLocationEmpty : kLeaveLocation, left.err);
}

Result resolveCopy(const std::string &path, SnapPlace *place) {
  if (handles.rootPath.empty()) {
    traceLog("getSnapPath: cannot get fileset root path\n");
    return failed(kActiveRoot, ENOENT);
  }
  if (handles.snapRootPath.empty()) {
    traceLog("getSnapPath: failed to get snap path. err %d\n", ENOENT);
    return failed(kSnapRoot, ENOENT);
  }
  std::string real;
  uint64_t moved_ino = 0;
  if (Result r = placeOf(path, &real, &moved_ino); !r) return r;
  if (!real.starts_with(handles.rootPath)) return failed(kOutsideRoot, EINVAL);
  place->path = handles.snapRootPath + "/" + real.substr(handles.rootPath.size());
  struct stat st;
  if (Result r = statPath(place->path, &st); !r) {
    // ELOOP: the snapshot can have a symbolic link where the active path has a directory.
    place->absent = r.err == ENOENT || r.err == ENOTDIR || r.err == ELOOP || r.err == ENAMETOOLONG;
    return failed(kStatCopy, r.err);
  }
  // The name of a temporary location contains the inode number in the snapshot.
  place->ino = moved_ino != 0 ? moved_ino : st.st_ino;
  return {};
}

}  // namespace

Result openBucketFile(const char *routine, const std::string &file, WorkFile::Mode mode,
                      const std::string &path, uint64_t ino, std::unique_ptr<WorkFile> *stream) {
  const long long number = static_cast<long long>(ino);
  Result opened;
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    opened = WorkFile::open(file, mode, stream);
    if (opened || opened.err != ENOENT) break;
    const std::string bucket = bucketDir(ino);
    if (Result r = makeWorkDirectory(bucket); !r) {
      traceLog("%s: fetch %s ino %lld, create dir %s failed, err %d.\n", routine, path.c_str(), number,
               bucket.c_str(), r.err);
      return r.at(kMakeBucket);
    }
  }
  if (opened) return {};
  traceLog("%s: create path file for %s failed, ino %lld err %d\n", routine, path.c_str(), number,
           opened.err);
  return opened.at(kOpenFile);
}

Result fetchFile(const std::string &path, uint64_t ino) {
  const Result r = writeDestination(destinationFile(ino), path, ino);
  if (!r) {
    traceLog("fetchFile: path %s, ino %lld, rc %d, code %d, error %d\n", path.c_str(),
             static_cast<long long>(ino), r.rc, r.code, r.err);
  }
  return r;
}

Result writeFilesetDestination(const std::string &path, uint64_t id) {
  return writeDestination(filesetDestination(id), path, id);
}

Result readFilesetDestination(uint64_t id, std::string *destination) {
  return readPlace(filesetDestination(id), destination);
}

Result readDestination(uint64_t ino, std::string *destination) {
  return readPlace(destinationFile(ino), destination);
}

Result getRealPath(const std::string &path, std::string *result) {
  const Result r = resolveReal(path, result);
  if (!r) {
    traceLog("getRealPath: path %s, rc %d, code %d, error %d\n", path.c_str(), r.rc, r.code, r.err);
  }
  return r;
}

Result getSnapPath(const std::string &path, SnapPlace *place) {
  *place = {};
  const Result r = resolveCopy(path, place);
  if (!r) {
    traceLog("getSnapPath: path %s, rc %d, code %d, err %d\n", path.c_str(), r.rc, r.code, r.err);
  }
  return r;
}
