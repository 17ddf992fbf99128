#include "worker/data_copy.h"

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>

#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"

namespace {

constexpr int64_t kBlock = 4096;  // bytes; what can be shared

struct Step {
  int rc = 0;
  int code = 0;
};

// A short read or write that gives no reason is a failure all the same.
Step failed(int code) {
  return {errno != 0 ? errno : EIO, code};
}

Step writeHole(kest_ifile_t *to, int64_t offset, int64_t length) {
  errno = 0;
  const int64_t written = kest_iwritex(to, nullptr, length, offset, 1);
  if (written == length) return {};
  const Step step = failed(2);
  traceLog("copyToActiveFile: hole writeLen %ld\n", static_cast<long>(written));
  return step;
}

Step copyPieces(kest_ifile_t *from, kest_ifile_t *to, const int64_t offset, const int64_t length) {
  const int64_t block = settings.fsBlockSize;
  std::unique_ptr<char[]> buffer(new (std::nothrow) char[static_cast<size_t>(block)]);
  if (!buffer) return {ENOMEM, 7};
  int64_t position = offset, done = 0;
  while (done < length) {
    const int64_t before = position;
    int hole = 0;
    errno = 0;
    int64_t got = kest_ireadx(from, handles.iscanFromP, buffer.get(), std::min(length - done, block),
                              &position, 0, &hole);
    if (got < 1) {
      // The list asks for more than the snapshot's file holds, or it cannot be read.
      const Step step = failed(4);
      traceLog("copyToActiveFile: readLen %ld, err %d\n", static_cast<long>(got), step.rc);
      return step;
    }
    if (done + got > length) {
      traceLog("copyToActiveFile: bytesDone %ld + readLen %ld > len %ld", static_cast<long>(done),
               static_cast<long>(got), static_cast<long>(length));
      got = length - done;
    }
    if (position != before) return {EIO, 6};
    position += got;
    errno = 0;
    if (kest_iwritex(to, hole ? nullptr : buffer.get(), got, before, hole) != got) return failed(5);
    done += got;
  }
  return {};
}

// 0 or an errno.
int share(kest_ifile_t *from, kest_ifile_t *to, int64_t start, int64_t end) {
  errno = 0;
  if (kest_ishare(from, to, start, end - start) == 0) return 0;
  return errno != 0 ? errno : EIO;
}

}  // namespace

int shareRange(kest_ifile_t *from, kest_ifile_t *to, int64_t *offset, int64_t *length) {
  const int64_t size = static_cast<int64_t>(from->if_size), stop = *offset + *length;
  if (*length <= 0 || stop > size) return 0;
  const int64_t start = *offset - *offset % kBlock, whole = stop - stop % kBlock;
  const int64_t end = whole == stop ? stop : std::min(whole + kBlock, size);
  int err = share(from, to, start, end);
  if (err == 0) {
    *length = 0;
    return 0;
  }
  // A block that ends in the middle can be shared only where the active file ends there as well.
  if (err == EINVAL && end % kBlock != 0 && whole > start) {
    err = share(from, to, start, whole);
    if (err == 0) {
      *offset = whole;
      *length = stop - whole;
    }
  }
  return err == EINVAL ? 0 : err;
}

int copyToActiveFile(kest_ifile_t *from, kest_ifile_t *to, int64_t offset, int64_t length,
                     const int32_t *holeFound, bool clone) {
  if (length == 0) return 0;
  const long long at = offset, bytes = length;
  if (length > 0 && settings.Verb) {
    traceLog("copyToActiveFile: %lld -> %lld offset %lld len %lld hole %d clone %d pid %d\n",
             static_cast<long long>(from->if_inode), static_cast<long long>(to->if_inode), at, bytes,
             holeFound != nullptr ? *holeFound : -1, clone, getpid());
  }
  const bool hole = holeFound != nullptr && *holeFound != 0;
  Step step = length < 0 ? Step{EINVAL, 1} : Step{};
  if (step.rc == 0) {
    if (const int err = shareRange(from, to, &offset, &length)) step = {err, 8};
  }
  if (step.rc == 0 && length > 0)
    step = hole ? writeHole(to, offset, length) : copyPieces(from, to, offset, length);
  if (step.rc == 0) return 0;
  traceLog("copyToActiveFile: offset %lld len %lld holeFound %d clone %d\n", at, bytes,
           holeFound != nullptr ? *holeFound : 0, clone);
  traceLog("copyToActiveFile: rc %d, code %d, err %d\n", step.rc, step.code, step.rc);
  errno = step.rc;
  return step.rc;
}
