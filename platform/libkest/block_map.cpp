// What lies where in a file, and sharing it.
#include <algorithm>
#include <cerrno>
#include <cstdint>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "btrfs/inode_flags.h"
#include "btrfs/tree_items.h"
#include "kest.h"
#include "libkest/c_call.h"
#include "libkest/fileset_handle.h"
#include "libkest/inode_io.h"

namespace kest {
namespace {

int fillMap(int fd, kest_block_map_t *map) {
  struct stat st;
  if (map == nullptr || map->bm_start < 0 || map->bm_end < map->bm_start) return -EINVAL;
  if (fstat(fd, &st) != 0) return -errno;
  if (!S_ISREG(st.st_mode)) return -EINVAL;
  int64_t end = std::min<int64_t>(map->bm_end, st.st_size), at = map->bm_start;
  map->bm_count = 0;
  while (at < end && map->bm_count < KEST_BLOCK_MAP_EXTENTS) {
    off_t data = lseek(fd, at, SEEK_DATA);
    if (data < 0 && errno != ENXIO) return -errno;
    bool hole = data != at;
    off_t next = !hole ? lseek(fd, at, SEEK_HOLE) : data < 0 ? end : data;
    if (next < 0) return -errno;
    auto &extent = map->bm_extents[map->bm_count++];
    extent.ex_hole = hole;
    extent.ex_start = at;
    at = extent.ex_end = std::min<int64_t>(next, end);
  }
  map->bm_end = at;
  return 0;
}

int share(OpenInode *from, OpenInode *to, int64_t offset, int64_t len) {
  if (!S_ISREG(from->if_mode) || !S_ISREG(to->if_mode) || offset < 0 || len < 0 ||
      offset > INT64_MAX - len)
    return -EINVAL;
  if (len == 0) return 0;  // to the kernel it would mean all the rest
  int source = from->readFd();
  if (source < 0) return source;
  int target = to->writeFd();
  if (target < 0) return target;
  if (int rc = saveCapability(to); rc != 0) return rc;
  struct file_clone_range range {};
  range.src_fd = source;
  range.src_offset = range.dest_offset = static_cast<uint64_t>(offset);
  range.src_length = static_cast<uint64_t>(len);
  int rc;
  do {
    rc = ioctl(target, FICLONERANGE, &range) == 0 ? 0 : -errno;
  } while (rc == -EINTR);
  to->changed_ranges = {};
  int kept = putBackCapability(to);  // it is gone even where the sharing failed
  switch (rc) {
    case 0:
      return kept;
    case -EXDEV:
    case -EOPNOTSUPP:
      return -EINVAL;
    case -EPERM:  // the flag was set after the file was opened
      return -EROFS;
    default:
      return rc;
  }
}

// 1 and the flags that say how the inode's data is kept; 0 no such inode; -errno.
int readStorageOf(const OpenInode *file, uint64_t *kind) {
  TreeReader tree(file->handle->root.get(), file->handle->subvol_id, 1);
  InodeItem inode;
  int rc = readInode(tree, file->if_inode, &inode);
  *kind = inode.flags & kItemSharingKind;
  return rc;
}

int shareable(const OpenInode *from, const OpenInode *to) {
  if (!S_ISREG(from->if_mode) || !S_ISREG(to->if_mode)) return 0;
  uint64_t one = 0, other = 0;
  int rc = readStorageOf(from, &one);
  if (rc > 0) rc = readStorageOf(to, &other);
  if (rc == 0) return -ENOENT;
  return rc < 0 ? rc : one == other;
}

bool isOpen(const kest_ifile_t *file) {
  return file != nullptr && file->if_kind == KEST_IFILE_KIND;
}

}  // namespace
}  // namespace kest

using namespace kest;

extern "C" int kest_ishare(kest_ifile_t *from, kest_ifile_t *to, int64_t offset, int64_t len) {
  return cCall([&] {
    return isOpen(from) && isOpen(to) ? share(openInode(from), openInode(to), offset, len) : -EINVAL;
  });
}

extern "C" int kest_ishareable(kest_ifile_t *from, kest_ifile_t *to) {
  return cCall(
      [&] { return isOpen(from) && isOpen(to) ? shareable(openInode(from), openInode(to)) : -EINVAL; });
}

extern "C" int kxfattr(int fd, int code, void *record, void *) {
  return cCall([&] {
    return code == KEST_BLOCK_MAP ? fillMap(fd, static_cast<kest_block_map_t *>(record)) : -EINVAL;
  });
}
