#include "worker/clone_delta.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "object/clear_flags.h"
#include "object/step.h"
#include "object/temp_place.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "scan/extent_reader.h"
#include "worker/data_copy.h"

namespace {

constexpr int64_t kBlock = 4096;  // bytes
constexpr int64_t kChunk = 64 * kBlock;

// All of [offset, offset + length), or to the end of the file; -1 and errno.
int64_t readRange(kest_ifile_t *file, std::vector<char> &buffer, int64_t offset, int64_t length) {
  int64_t done = 0;
  while (done < length) {
    int64_t position = offset + done;
    const int64_t got = kest_iread(file, buffer.data() + done, length - done, &position);
    if (got < 0) return -1;
    if (got == 0) break;
    done += got;
  }
  return done;
}

// Blocks of one data range. 0 or -1 and errno.
int copyDifferingBlocks(kest_ifile_t *from, kest_ifile_t *to, int64_t offset, int64_t length) {
  std::vector<char> wanted(kChunk), there(kChunk);
  for (const int64_t end = offset + length; offset < end;) {
    const int64_t chunk = std::min(kChunk, end - offset);
    if (readRange(from, wanted, offset, chunk) != chunk) {
      if (errno == 0) errno = EIO;
      return -1;
    }
    const int64_t have = readRange(to, there, offset, chunk);
    if (have < 0) return -1;
    for (int64_t at = 0; at < chunk; at += kBlock) {
      const int64_t size = std::min(kBlock, chunk - at);
      if (at + size <= have && memcmp(&wanted[static_cast<size_t>(at)], &there[static_cast<size_t>(at)],
                                      static_cast<size_t>(size)) == 0)
        continue;
      if (kest_iwritex(to, &wanted[static_cast<size_t>(at)], size, offset + at, 0) != size) {
        if (errno == 0) errno = EIO;
        return -1;
      }
    }
    offset += chunk;
  }
  return 0;
}

// Every range of the snapshot's clone from `offset` on, its holes as holes. 0 or -1 and errno.
int copyDifferences(kest_ifile_t *from, kest_ifile_t *to, int64_t offset, int64_t size) {
  while (offset < size) {
    int hole = 0;
    errno = 0;
    const int64_t length = readExtent(from, handles.iscanFromP, nullptr, 0, &offset, size, &hole);
    if (length == 0) errno = EIO;  // it ends before its size
    if (length <= 0) return -1;
    const int rc = hole ? (kest_iwritex(to, nullptr, length, offset, 1) == length ? 0 : -1)
                        : copyDifferingBlocks(from, to, offset, length);
    if (rc != 0) return -1;
    offset += length;
  }
  return 0;
}

Step restore(const std::string &path, kest_ifile_t *snap, uint64_t ino) {
  Inode active = openInode(handles.activeFsP, ino);
  if (!active) return failedStep(3, errno);
  const int64_t size = static_cast<int64_t>(snap->if_size);
  if (size < static_cast<int64_t>(active->if_size)) {
    bool clearing_failed = false;
    const int err = retryClearing(
        path, "", [&] { return kest_truncate(handles.activeFsP, linkFree(path).c_str(), size, ino); },
        &clearing_failed);
    if (err != 0) return failedStep(clearing_failed ? 5 : 4, err);
  }
  if (size == 0) return {};
  const int err = retryClearing(path, "", [&] {
    int64_t offset = 0, length = size;
    errno = shareRange(snap, active.get(), &offset, &length);
    return errno != 0 || (length > 0 && copyDifferences(snap, active.get(), offset, size) != 0) ? -1
                                                                                                : 0;
  });
  return err == 0 ? Step{} : failedStep(6, err);
}

}  // namespace

int restoreCloneDelta(const std::string &path, kest_ifile_t *snap, uint64_t ino) {
  const Step step = restore(path, snap, ino);
  if (step) return 0;
  traceLog("restoreCloneDelta:ino %lld failed, path %s, pass %d, code %d, rc %d, err %d\n",
           static_cast<long long>(ino), path.c_str(), settings.pass, step.code, step.rc, step.err);
  errno = step.err;
  return step.rc;
}
