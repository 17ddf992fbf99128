// Ranges of files: what changed, what is data or a hole, and what two files can share.
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <climits>

#include "detect/file_systems.h"
#include "libkest/c_call.h"
#include "libkest/open_file.h"
#include "libkest/scan.h"

namespace kest {

namespace {

// Finds the next stretch of data or of a hole; if `buf` is not NULL, also reads up to `size` bytes of
// it.
int64_t nextStretch(Inode &inode, void *buf, int64_t size, int64_t *offset, int64_t term, int *hole) {
  struct stat status;
  if (int rc = inode.openForReading(); rc < 0) return rc;
  if (int rc = inode.stat(&status); rc < 0) return rc;
  const int64_t end = term > 0 ? std::min<int64_t>(term, status.st_size) : status.st_size;
  if (*offset >= end) return 0;
  int64_t stop = 0;
  bool is_hole;
  if (int rc = inode.stretchAt(*offset, end, &stop, &is_hole); rc < 0) return rc;
  *hole = is_hole ? 1 : 0;
  if (buf == nullptr) return stop - *offset;
  const int64_t want = std::min(size, stop - *offset);
  return is_hole ? want : inode.read(buf, want, *offset);
}

int64_t nextChanged(OpenFile *file, kest_iscan *scan, int64_t *offset, int64_t term, int *hole) {
  if (!S_ISREG(file->if_mode)) return 0;
  Difference *difference;
  int rc = differenceOf(scan, &difference);
  if (rc < 0) return rc;
  if (difference->set().find(file->if_inode).state == 0) return 0;
  const uint64_t from = *offset, to = term > 0 ? static_cast<uint64_t>(term) : UINT64_MAX;
  ChangedRanges &known = file->changed_ranges;
  // A query from the start of the file begins a new pass over it, so compare again.
  if (known.scan != scan || from < known.from || to != known.to || from == 0) {
    known = {};
    known.from = from;
    known.to = to;
    rc = difference->listChangedRanges(*file->inode, from, to, &known.ranges);
    if (rc < 0) return rc;
    known.scan = scan;
  }
  auto one = std::upper_bound(
      known.ranges.begin(), known.ranges.end(), from,
      [](uint64_t at, const FileRange &range) { return at < range.start + range.length; });
  if (one == known.ranges.end()) return 0;
  const uint64_t start = std::max(one->start, from);
  *offset = static_cast<int64_t>(start);
  *hole = one->hole ? 1 : 0;
  return static_cast<int64_t>(one->start + one->length - start);
}

int fillMap(Inode &inode, kest_block_map_t *map) {
  struct stat st;
  if (map == nullptr || map->bm_start < 0 || map->bm_end < map->bm_start) return -EINVAL;
  if (int rc = inode.stat(&st); rc < 0) return rc;
  if (!S_ISREG(st.st_mode)) return -EINVAL;
  const int64_t end = std::min<int64_t>(map->bm_end, st.st_size);
  int64_t at = map->bm_start;
  map->bm_count = 0;
  while (at < end && map->bm_count < KEST_BLOCK_MAP_EXTENTS) {
    int64_t stop;
    bool hole;
    if (int rc = inode.stretchAt(at, end, &stop, &hole); rc < 0) return rc;
    auto &extent = map->bm_extents[map->bm_count++];
    extent.ex_hole = hole;
    extent.ex_start = at;
    at = extent.ex_end = stop;
  }
  map->bm_end = at;
  return 0;
}

int share(OpenFile *from, OpenFile *to, int64_t offset, int64_t len) {
  if (!S_ISREG(from->if_mode) || !S_ISREG(to->if_mode) || offset < 0 || len < 0 ||
      offset > INT64_MAX - len)
    return -EINVAL;
  if (len == 0) return 0;  // 0 would mean "all the rest" to the kernel
  if (int rc = from->inode->openForReading(); rc < 0) return rc;
  if (int rc = to->inode->openForWriting(); rc < 0) return rc;
  if (int rc = to->capability.save(*to->inode); rc != 0) return rc;
  const int rc = to->inode->share(*from->inode, offset, len);
  to->changed_ranges = {};
  const int kept = to->capability.putBack(*to->inode);  // the capability is gone even if sharing failed
  return rc == 0 ? kept : rc;
}

}  // namespace

}  // namespace kest

using namespace kest;

extern "C" {

int64_t kest_ireadx(kest_ifile_t *file, kest_iscan_t *scan, void *buf, int64_t size, int64_t *offset,
                    int64_t term, int *hole) {
  return cCall([&]() -> int64_t {
    OpenFile *open = openFile(file);
    if (open == nullptr || offset == nullptr || hole == nullptr || *offset < 0 || size < 0 || term < 0)
      return -EINVAL;
    *hole = 0;
    if (buf == nullptr && scan != nullptr && scan->difference != nullptr)
      return nextChanged(open, scan, offset, term, hole);
    return nextStretch(*open->inode, size > 0 ? buf : nullptr, size, offset, term, hole);
  });
}

int kest_ishare(kest_ifile_t *from, kest_ifile_t *to, int64_t offset, int64_t len) {
  return cCall([&] {
    OpenFile *source = openFile(from), *target = openFile(to);
    return source != nullptr && target != nullptr ? share(source, target, offset, len) : -EINVAL;
  });
}

int kxfattr(int fd, int code, void *record, void *) {
  return cCall([&] {
    if (code != KEST_BLOCK_MAP) return -EINVAL;
    return fillMap(*inodeBehind(fd), static_cast<kest_block_map_t *>(record));
  });
}

}  // extern "C"
