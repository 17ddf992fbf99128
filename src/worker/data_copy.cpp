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

enum CopyStep : int {
  kCheckLength = 1,
  kWriteHole = 2,
  kRead = 4,
  kWrite = 5,
  kReadElsewhere = 6,  // the library moved on to another offset than the one asked for
  kAllocate = 7,
  kShare = 8,
};

// A short read or write whose errno is 0 is a failure all the same: failedErrno makes it EIO.

Result writeHole(kest_ifile_t *to, int64_t offset, int64_t length) {
  errno = 0;
  const int64_t written = kest_iwritex(to, nullptr, length, offset, 1);
  if (written == length) return {};
  const Result result = failedErrno(kWriteHole);
  traceLog("copyToActiveFile: hole writeLen %ld\n", static_cast<long>(written));
  return result;
}

Result copyPieces(kest_ifile_t *from, kest_ifile_t *to, const int64_t offset, const int64_t length) {
  const int64_t block = settings.fsBlockSize;
  std::unique_ptr<char[]> buffer(new (std::nothrow) char[static_cast<size_t>(block)]);
  if (!buffer) return failedErrno(kAllocate, ENOMEM);
  int64_t position = offset, done = 0;
  while (done < length) {
    const int64_t before = position;
    int hole = 0;
    errno = 0;
    int64_t got = kest_ireadx(from, handles.iscanFromP, buffer.get(), std::min(length - done, block),
                              &position, 0, &hole);
    if (got < 1) {
      // The list asks for more than the snapshot's file holds, or it cannot be read.
      const Result result = failedErrno(kRead);
      traceLog("copyToActiveFile: readLen %ld, err %d\n", static_cast<long>(got), result.err);
      return result;
    }
    if (done + got > length) {
      traceLog("copyToActiveFile: bytesDone %ld + readLen %ld > len %ld", static_cast<long>(done),
               static_cast<long>(got), static_cast<long>(length));
      got = length - done;
    }
    if (position != before) return failedErrno(kReadElsewhere, EIO);
    position += got;
    errno = 0;
    if (kest_iwritex(to, hole ? nullptr : buffer.get(), got, before, hole) != got)
      return failedErrno(kWrite);
    done += got;
  }
  return {};
}

Result share(kest_ifile_t *from, kest_ifile_t *to, int64_t start, int64_t end) {
  errno = 0;
  return called(kest_ishare(from, to, start, end - start));
}

Result shareOrCopy(kest_ifile_t *from, kest_ifile_t *to, int64_t offset, int64_t length, bool hole) {
  if (length < 0) return failedErrno(kCheckLength, EINVAL);
  if (Result r = shareRange(from, to, &offset, &length); !r) return r.at(kShare);
  if (length == 0) return {};
  return hole ? writeHole(to, offset, length) : copyPieces(from, to, offset, length);
}

}  // namespace

Result shareRange(kest_ifile_t *from, kest_ifile_t *to, int64_t *offset, int64_t *length) {
  const int64_t size = static_cast<int64_t>(from->if_size), stop = *offset + *length;
  if (*length <= 0 || stop > size) return {};
  const int64_t start = *offset - *offset % kBlock, whole = stop - stop % kBlock;
  const int64_t end = whole == stop ? stop : std::min(whole + kBlock, size);
  Result result = share(from, to, start, end);
  if (result) {
    *length = 0;
    return {};
  }
  // A block that ends in the middle can be shared only where the active file ends there as well.
  if (result.err == EINVAL && end % kBlock != 0 && whole > start) {
    result = share(from, to, start, whole);
    if (result) {
      *offset = whole;
      *length = stop - whole;
    }
  }
  return result.err == EINVAL ? Result{} : result;
}

Result copyToActiveFile(kest_ifile_t *from, kest_ifile_t *to, const Operation &range) {
  if (range.length == 0) return {};
  const long long offset = range.offset, length = static_cast<int64_t>(range.length);
  const bool clone = range.clone != 0;
  if (length > 0 && settings.Verb) {
    traceLog("copyToActiveFile: %lld -> %lld offset %lld len %lld hole %d clone %d pid %d\n",
             static_cast<long long>(from->if_inode), static_cast<long long>(to->if_inode), offset,
             length, range.holeFound, clone, getpid());
  }
  const Result result = shareOrCopy(from, to, offset, length, range.holeFound != 0);
  if (result) return {};
  traceLog("copyToActiveFile: offset %lld len %lld holeFound %d clone %d\n", offset, length,
           range.holeFound, clone);
  traceLog("copyToActiveFile: rc %d, code %d, err %d\n", result.rc, result.code, result.err);
  return result;
}
