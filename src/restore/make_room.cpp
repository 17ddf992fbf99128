#include "restore/make_room.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "base/fd_path.h"
#include "base/unique_fd.h"
#include "messages/messages.h"
#include "object/paths.h"
#include "restore/start_checks.h"
#include "run/open_run.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

// A generous estimate of the bytes for lists and trace log: per differing inode, and the least.
constexpr uint64_t kBytesAnInode = 1024, kBytesAtLeast = 8 << 20;
// Metadata that the steps of a few workers reserve at the same time, in bytes.
constexpr int64_t kMetadataAtLeast = 8 << 20;

struct Candidate {
  int64_t size = 0;
  uint64_t ino = 0;
};

struct Removed {
  int64_t files = 0, bytes = 0;
};

// Fills *file, with a number other than 0, if the inode may be removed.
Result lookAt(kest_iscan_t *scan, uint64_t ino, Candidate *file) {
  const int bits = kest_idifference(scan, ino);
  if (bits < 0) return failedErrno(0);
  const bool new_file = (bits & KEST_DI_ACTIVE) != 0 &&
                        ((bits & KEST_DI_SNAPSHOT) == 0 || (bits & KEST_DI_REPLACED) != 0);
  if (!new_file || (bits & (KEST_DI_DIR | KEST_DI_LINKED)) != 0) return {};
  const kest_iattr64_t *attr = nullptr;
  if (Result r = called(kest_stat_inode64(scan, ino, ino + 1, &attr)); !r) return r;
  if (attr && isRegular(attr->ia_mode) && attr->ia_nlink == 1) *file = {attr->ia_size, ino};
  return {};
}

// Finds the files that may be removed, largest first.
Result findCandidates(kest_iscan_t *scan, uint64_t max_ino, std::vector<Candidate> *candidates) {
  for (;;) {
    if (stopSignal() != 0) return errnoResult(EINTR);
    const kest_iattr64_t *attr = nullptr;
    if (Result r = called(kest_next_inode64(scan, max_ino, &attr)); !r) return r;
    if (!attr) break;
    Candidate file;
    if (Result r = lookAt(scan, attr->ia_inode, &file); !r) return r;
    if (file.ino != 0) candidates->push_back(file);
  }
  std::stable_sort(candidates->begin(), candidates->end(),
                   [](const Candidate &a, const Candidate &b) { return a.size > b.size; });
  return {};
}

// Removes one file. Skips a file that cannot be removed, because of a flag or a mount, or that is gone
// already, because removing the next one may free enough.
void removeOne(const Candidate &file, Removed *removed) {
  std::vector<std::string> paths;
  if (!findInodePaths(handles.activeFsP, file.ino, handles.rootPath, &paths) || paths.size() != 1)
    return;
  const std::string &path = paths.front();
  if (inWorkDir(path)) return;
  const Result r = called(kest_unlink(handles.activeFsP, path.c_str(), file.ino));
  traceLog("makeRoom: removed %s, ino %lld, err %d\n", path.c_str(), static_cast<long long>(file.ino),
           r.err);
  if (!r) return;
  ++removed->files;
  removed->bytes += file.size;
}

// The file system frees the space and quota of removed files only when it commits.
Result commit() {
  UniqueFd named;
  if (Result r = openObject(handles.rootPath, &named); !r) return r;
  const UniqueFd root(reopen(named.get(), O_RDONLY | O_DIRECTORY));
  return root ? called(syncfs(root.get())) : failedErrno(0);
}

// Doubles the number of files from one commit to the next: a commit costs as much as removing many
// small files.
Result removeUntil(const std::function<Result()> &attempt, const std::vector<Candidate> &files,
                   Removed *removed) {
  Result result = errnoResult(ENOSPC);
  size_t done = 0;
  for (size_t batch = 1; isFull(result.err) && done < files.size(); batch *= 2) {
    const size_t end = std::min(done + batch, files.size());
    for (; done < end; ++done) {
      if (stopSignal() != 0) return errnoResult(EINTR);
      removeOne(files[done], removed);
    }
    if (Result r = commit(); !r) return r;
    result = attempt();
  }
  return result;
}

Result openOwnScan(InodeScan *scan, uint64_t *max_ino) {
  kest_snapid_t snap_id = 0;
  if (Result r = called(kest_get_fssnapid_from_fssnaphandle(handles.oldFsP, &snap_id)); !r) return r;
  scan->reset(kest_open_inodescan64(handles.activeFsP, &snap_id, max_ino));
  return *scan ? Result{} : failedErrno(0);
}

// Checks that the work directory can take `bytes` more bytes.
Result reserve(uint64_t bytes) {
  kest_statfs64_t figures;
  if (Result r = called(kest_statfs64(handles.rootPath.c_str(), &figures)); !r) return r;
  // If the file system does not know its size, only a write can show whether there is room.
  if (figures.f_blocks != 0 && figures.f_bavail < bytes / figures.f_bsize) return errnoResult(ENOSPC);
  const int64_t metadata = kest_metadata_room(handles.activeFsP);
  if (metadata < 0) return failedErrno(0);
  if (metadata < kMetadataAtLeast) return errnoResult(ENOSPC);
  // The file system's figures do not include quotas, so reserve the space in a real file.
  const std::string path = workPath(kRoom);
  UniqueFd fd;
  Result result = openWorkFile(path, O_WRONLY | O_CREAT | O_TRUNC, &fd);
  if (!result) return result;
  result = errnoResult(posix_fallocate(fd.get(), 0, static_cast<off_t>(bytes)));
  fd.reset();
  const Result removed = unlinkWorkFile(path);
  // EFBIG is a limit of the process and says nothing about room. A list that meets it reports that.
  if (result.err == EFBIG) return removed;
  return result ? removed : result;
}

}  // namespace

Result makeRoom(const std::function<Result()> &attempt) {
  InodeScan scan;
  uint64_t max_ino = 0;
  std::vector<Candidate> files;
  Result found = openOwnScan(&scan, &max_ino);
  if (found) {
    if (Result r = mountCheck(scan.get()); !r) return r;
    if (Result r = obstacleCheck(scan.get(), false); !r) return r;
    found = findCandidates(scan.get(), max_ino, &files);
  }
  if (!found) {
    if (stopSignal() == 0)
      userMessage(Message::kComparisonFailed, settings.filesetP, strerror(found.err));
    return found;
  }
  Removed removed;
  const Result result = removeUntil(attempt, files, &removed);
  if (removed.files > 0) userMessage(Message::kRoomMade, removed.files, removed.bytes);
  return result;
}

Result makeRoomForLists() {
  const int64_t inodes = kest_difference_size(handles.iscanP);
  if (inodes < 0) {
    const Result result = failedErrno(0);
    userMessage(Message::kComparisonFailed, settings.filesetP, strerror(result.err));
    return result;
  }
  const uint64_t bytes = kBytesAtLeast + static_cast<uint64_t>(inodes) * kBytesAnInode;
  Result result = reserve(bytes);
  if (isFull(result.err)) {
    result = makeRoom([bytes] { return reserve(bytes); });
    // The difference still contains the removed files, which must not be listed.
    if (Result r = renewDifference(); !r) return r;
    if (Result r = obstacleCheck(handles.iscanP, false); !r) return r;
  }
  if (result || isFull(result.err)) return {};
  if (stopSignal() == 0) userMessage(Message::kFileError, workPath(kRoom), strerror(result.err));
  return result;
}
