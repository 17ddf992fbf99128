// kest_ireadx: reading a file by what differs, or by data and holes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>

#include "libkest/c_call.h"
#include "libkest/inode_scan.h"
#include "libkest/open_inode.h"

namespace kest {

namespace {

// The stretch of one kind that begins at `offset`: its end, at most `end`, and whether it is a hole.
// Asks the kernel, which knows unwritten data, too, and shows preallocated space as a hole. 0 or
// -errno.
int stretchAt(int fd, int64_t offset, int64_t end, int64_t *stop, bool *hole) {
  off_t data = lseek(fd, offset, SEEK_DATA);
  if (data < 0 && errno != ENXIO) return -errno;
  if (data < 0 || data > offset) {
    *hole = true;
    *stop = data < 0 ? end : std::min<int64_t>(data, end);
    return 0;
  }
  off_t next = lseek(fd, offset, SEEK_HOLE);
  if (next < 0) return -errno;
  *hole = false;
  *stop = std::min<int64_t>(next, end);
  return 0;
}

int64_t nextStretch(OpenInode *file, void *buf, int64_t size, int64_t *offset, int64_t term,
                    int *hole) {
  int fd = file->readFd();
  if (fd < 0) return fd;
  struct stat status;
  if (fstat(fd, &status) < 0) return -errno;
  int64_t end = term > 0 ? std::min<int64_t>(term, status.st_size) : status.st_size;
  if (*offset >= end) return 0;
  int64_t stop = 0;
  bool is_hole;
  int rc = stretchAt(fd, *offset, end, &stop, &is_hole);
  if (rc < 0) return rc;
  *hole = is_hole ? 1 : 0;
  if (buf == nullptr) return stop - *offset;
  int64_t want = std::min(size, stop - *offset), done = 0;
  if (is_hole) return want;
  while (done < want) {
    ssize_t n = pread(fd, static_cast<char *>(buf) + done, want - done, *offset + done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return done > 0 ? done : -errno;
    if (n == 0) break;
    done += n;
  }
  return done;
}

// Compares [from, end of what both sizes and `term` allow). 0 or -errno.
int compareRanges(OpenInode *file, kest_iscan *scan, uint64_t from, uint64_t term) {
  ChangedRanges &known = file->changed_ranges;
  known = {};
  known.from = from;
  known.to = term;
  TreeReader active(scan->handle->root.get(), scan->handle->subvol_id);
  TreeReader snapshot(scan->handle->root.get(), scan->snapshot_id);
  InodeItem now, then;
  now.generation = file->if_generation;
  now.otime = {file->created.tv_sec, static_cast<uint32_t>(file->created.tv_nsec)};
  now.mode = file->if_mode;
  int rc = readInode(snapshot, file->if_inode, &then);
  if (rc < 0) return rc;
  if (rc == 0 || !sameIdentity(now, then)) return -ENOENT;
  struct statx status;
  if (statx(file->path_fd.get(), "", AT_EMPTY_PATH, STATX_SIZE, &status) < 0) return -errno;
  uint64_t end = std::min<uint64_t>({status.stx_size, then.size, term});
  rc = diffExtents(active, snapshot, file->if_inode, from, end, SIZE_MAX, &known.ranges);
  if (rc == 0) known.scan = scan;
  return rc;
}

int64_t nextChanged(OpenInode *file, kest_iscan *scan, int64_t *offset, int64_t term, int *hole) {
  if (!S_ISREG(file->if_mode)) return 0;
  const TreeDiff *diff;
  int rc = scan->diff(&diff);
  if (rc < 0) return rc;
  if (diff->find(file->if_inode).state == 0) return 0;
  uint64_t from = *offset, to = term > 0 ? static_cast<uint64_t>(term) : UINT64_MAX;
  ChangedRanges &known = file->changed_ranges;
  if (known.scan != scan || from < known.from || to != known.to || from == 0) {
    rc = compareRanges(file, scan, from, to);
    if (rc < 0) return rc;
  }
  auto one = std::upper_bound(
      known.ranges.begin(), known.ranges.end(), from,
      [](uint64_t at, const ExtentRange &range) { return at < range.start + range.length; });
  if (one == known.ranges.end()) return 0;
  uint64_t start = std::max(one->start, from);
  *offset = static_cast<int64_t>(start);
  *hole = one->hole ? 1 : 0;
  return static_cast<int64_t>(one->start + one->length - start);
}

}  // namespace

}  // namespace kest

using namespace kest;

extern "C" int64_t kest_ireadx(kest_ifile_t *file, kest_iscan_t *scan, void *buf, int64_t size,
                               int64_t *offset, int64_t term, int *hole) {
  return cCall([&]() -> int64_t {
    if (file == nullptr || file->if_kind != KEST_IFILE_KIND || offset == nullptr || hole == nullptr ||
        *offset < 0 || size < 0 || term < 0)
      return -EINVAL;
    *hole = 0;
    bool changed = buf == nullptr && scan != nullptr && scan->difference;
    return changed ? nextChanged(openInode(file), scan, offset, term, hole)
                   : nextStretch(openInode(file), size > 0 ? buf : nullptr, size, offset, term, hole);
  });
}
