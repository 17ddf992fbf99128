#include "object/path_files.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <charconv>
#include <string_view>

#include "object/object_stat.h"
#include "run/run_handles.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"
#include "scan/clone_state.h"

namespace {

constexpr int kOpenAttempts = 2;  // without the bucket directory, then with it

// Opens `file` in the bucket of `ino`. Null and errno, with the code of the step.
std::unique_ptr<WorkFile> openBucketFile(const char *routine, const std::string &file,
                                         WorkFile::Mode mode, const std::string &path, uint64_t ino,
                                         int *code) {
  const long long number = static_cast<long long>(ino);
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    std::unique_ptr<WorkFile> stream = WorkFile::open(file, mode);
    if (stream || errno != ENOENT) {
      if (stream) return stream;
      break;
    }
    const std::string bucket = bucketDir(ino);
    if (const int err = makeWorkDirectory(bucket)) {
      traceLog("%s: fetch %s ino %lld, create dir %s failed, err %d.\n", routine, path.c_str(), number,
               bucket.c_str(), err);
      *code = 1;
      errno = err;
      return nullptr;
    }
  }
  const int err = errno;
  traceLog("%s: create path file for %s failed, ino %lld err %d\n", routine, path.c_str(), number, err);
  *code = 2;
  errno = err;
  return nullptr;
}

// 1, 0, or -1 and errno.
int isLivingParent(uint64_t ino) {
  Inode file = openInode(handles.activeFsP, ino);
  if (!file) return errno == ENOENT ? 0 : -1;
  CloneAttr attr;
  return isClone(file.get(), &attr, nullptr) && attr.isParent();
}

int parentNotRecorded(const std::string &path, uint64_t ino, int rc, int err) {
  traceLog("recordCloneParentIno: path %s, ino %lld\n", path.c_str(), static_cast<long long>(ino));
  errno = err;
  return rc;
}

}  // namespace

int fetchFile(const std::string &path, uint64_t ino) {
  int code = 0, rc = 0;
  std::unique_ptr<WorkFile> stream =
      openBucketFile("fetchFile", destinationFile(ino), WorkFile::Mode::kTruncate, path, ino, &code);
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

int recordCloneParentIno(const std::string &path, uint64_t ino) {
  struct stat st;
  if (statPath(path, &st) != 0) return parentNotRecorded(path, ino, -1, errno);
  if (!isRegular(st.st_mode)) return 0;
  if (const int parent = isLivingParent(st.st_ino); parent != 1) {
    if (parent == 0) errno = EINVAL;
    traceLog("recordCloneParentIno: %s isn't a clone parent\n", path.c_str());
    return -1;
  }
  int code = 0, rc = 0;
  std::unique_ptr<WorkFile> stream = openBucketFile("recordCloneParentIno", newParentFile(ino),
                                                    WorkFile::Mode::kShared, path, ino, &code);
  if (!stream) return parentNotRecorded(path, ino, errno, errno);
  if (stream->append(std::to_string(st.st_ino) + "\n") != 0) rc = errno;
  int close_rc = 0;
  closeWorkFile(stream, newParentFile(ino), &close_rc);
  if (rc == 0 && close_rc != 0) rc = errno != 0 ? errno : EIO;
  return rc == 0 ? 0 : parentNotRecorded(path, ino, rc, rc);
}

int readNewParent(uint64_t ino, uint64_t *now) {
  std::string text;
  if (!readWholeFile(newParentFile(ino), &text)) return errno == ENOENT ? 0 : -1;
  std::string_view rest = text;
  // A line without its end was cut off.
  for (size_t end = rest.rfind('\n'); end != std::string_view::npos; end = rest.rfind('\n')) {
    rest = rest.substr(0, end);
    const size_t start = rest.rfind('\n');
    const std::string_view line = start == std::string_view::npos ? rest : rest.substr(start + 1);
    uint64_t number = 0;
    const auto [stop, error] = std::from_chars(line.data(), line.data() + line.size(), number);
    if (error != std::errc() || stop != line.data() + line.size()) continue;
    const int parent = isLivingParent(number);
    if (parent == 0) continue;
    *now = number;
    return parent;
  }
  return 0;
}
