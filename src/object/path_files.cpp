#include "object/path_files.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>

#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

constexpr int kOpenAttempts = 2;  // without the bucket directory, then with it

// Opens the destination file of `ino`, empty. Null and errno, with the code of the step.
std::unique_ptr<WorkFile> createDestination(const std::string &path, uint64_t ino, int *code) {
  const std::string file = destinationFile(ino);
  const long long number = static_cast<long long>(ino);
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    std::unique_ptr<WorkFile> stream = WorkFile::open(file, WorkFile::Mode::kTruncate);
    if (stream || errno != ENOENT) {
      if (stream) return stream;
      break;
    }
    const std::string bucket = bucketDir(ino);
    if (const int err = makeWorkDirectory(bucket)) {
      traceLog("fetchFile: fetch %s ino %lld, create dir %s failed, err %d.\n", path.c_str(), number,
               bucket.c_str(), err);
      *code = 1;
      errno = err;
      return nullptr;
    }
  }
  const int err = errno;
  traceLog("fetchFile: create path file for %s failed, ino %lld err %d\n", path.c_str(), number, err);
  *code = 2;
  errno = err;
  return nullptr;
}

}  // namespace

int fetchFile(const std::string &path, uint64_t ino) {
  int code = 0, rc = 0;
  std::unique_ptr<WorkFile> stream = createDestination(path, ino, &code);
  if (!stream) {
    rc = errno;
  } else {
    if (stream->append(path) != 0 || stream->flush() != 0) {
      code = 3;
      rc = errno;
      traceLog("fetchFile: write path error for %s,ino %lld err %d\n", path.c_str(),
               static_cast<long long>(ino), rc);
    }
    errno = 0;
    int close_rc = 0;
    closeWorkFile(stream, destinationFile(ino), &close_rc);
    if (rc == 0 && close_rc != 0) rc = close_rc > 0 ? close_rc : errno != 0 ? errno : EIO;
  }
  if (rc == 0) return 0;
  traceLog("fetchFile: path %s, ino %lld, rc %d, code %d, error %d\n", path.c_str(),
           static_cast<long long>(ino), rc, code, rc);
  errno = rc;
  return rc;
}

bool readDestination(uint64_t ino, std::string *destination) {
  const std::string file = destinationFile(ino);
  if (file.empty()) {
    errno = ENAMETOOLONG;
    return false;
  }
  if (!readWholeFile(file, destination)) return false;
  if (!destination->empty()) return true;
  errno = ENODATA;
  return false;
}

int getOrigPathBeforeRename(const std::string &path, std::string *result, uint64_t ino) {
  if (readDestination(ino, result)) {
    traceLog("getOrigPathBeforeRename: origPath %s\n", result->c_str());
    return 0;
  }
  const int err = errno;
  const bool empty = err == ENODATA;
  if (empty) {
    traceLog("getOrigPathBeforeRename: invalid origPath\n");
  } else {
    const std::string file = destinationFile(ino);
    traceLog("getOrigPathBeforeRename: cannot open dest file %s\n", file.c_str());
  }
  traceLog("getOrigPathBeforeRename: rc %d, path %s, code %d, error %d\n", -1, path.c_str(),
           empty ? 2 : 1, err);
  errno = err;
  return -1;
}
