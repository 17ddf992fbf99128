#include "worker/data_copy.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>

#include "run/run_handles.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"

namespace {

enum CopyStep : int {
  kCheckLength = 1,
  kWriteHole = 2,
  kRead = 4,
  kWrite = 5,
  kReadElsewhere = 6,  // the library skipped to another offset than the requested one
  kAllocate = 7,
  kShare = 8,
};

// failedErrno turns an errno of 0 into EIO, so a short read or write is a failure in any case.

Result writeHole(kest_ifile_t *to, int64_t offset, int64_t length) {
  errno = 0;
  const int64_t written = kest_iwritex(to, nullptr, length, offset, 1);
  if (written == length) return {};
  const Result result = failedErrno(kWriteHole);
  traceLog("copyToActiveFile: hole writeLen %ld\n", static_cast<long>(written));
  return result;
}

// Copies a range of data, one transfer unit at a time.
Result copyBlocks(kest_ifile_t *from, kest_ifile_t *to, char *buffer, int64_t offset, int64_t length) {
  while (length > 0) {
    if (stopSignal() != 0) return failedErrno(kRead, EINTR);
    int64_t position = offset;
    int hole = 0;
    errno = 0;
    int64_t got = kest_ireadx(from, handles.iscanFromP, buffer,
                              std::min<int64_t>(length, settings.fsBlockSize), &position, 0, &hole);
    if (got < 1) {
      const Result result = failedErrno(kRead);
      traceLog("copyToActiveFile: readLen %ld, err %d\n", static_cast<long>(got), result.err);
      return result;
    }
    if (position != offset) return failedErrno(kReadElsewhere, EIO);
    got = std::min(got, length);
    errno = 0;
    if (kest_iwritex(to, hole ? nullptr : buffer, got, offset, hole) != got) return failedErrno(kWrite);
    offset += got;
    length -= got;
  }
  return {};
}

// Copies a range as it is in the snapshot's file. A hole of any length costs one call.
Result copyRange(kest_ifile_t *from, kest_ifile_t *to, int64_t offset, int64_t length) {
  std::unique_ptr<char[]> buffer(new (std::nothrow) char[static_cast<size_t>(settings.fsBlockSize)]);
  if (!buffer) return failedErrno(kAllocate, ENOMEM);
  for (const int64_t end = offset + length; offset < end;) {
    int64_t position = offset;
    int hole = 0;
    errno = 0;
    const int64_t stretch = kest_ireadx(from, handles.iscanFromP, nullptr, 0, &position, end, &hole);
    if (stretch < 1) {
      // Either the list asks for more than the snapshot's file holds, or the file cannot be read.
      const Result result = failedErrno(kRead);
      traceLog("copyToActiveFile: readLen %ld, err %d\n", static_cast<long>(stretch), result.err);
      return result;
    }
    if (position != offset) return failedErrno(kReadElsewhere, EIO);
    const int64_t part = std::min(stretch, end - offset);
    if (Result r =
            hole ? writeHole(to, offset, part) : copyBlocks(from, to, buffer.get(), offset, part);
        !r)
      return r;
    offset += part;
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
  return hole ? writeHole(to, offset, length) : copyRange(from, to, offset, length);
}

}  // namespace

Result shareRange(kest_ifile_t *from, kest_ifile_t *to, int64_t *offset, int64_t *length) {
  const int64_t size = static_cast<int64_t>(from->if_size), stop = *offset + *length;
  if (*length <= 0 || stop > size) return {};
  // Extend the range to whole blocks, because the file system shares only those. The last block of a
  // file may be partial.
  const int64_t start = *offset - *offset % kBlock, whole = stop - stop % kBlock;
  const int64_t end = whole == stop ? stop : whole + std::min(kBlock, size - whole);
  Result result = share(from, to, start, end);
  if (result) {
    *length = 0;
    return {};
  }
  // A partial block can be shared only if the active file ends in it, too.
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
