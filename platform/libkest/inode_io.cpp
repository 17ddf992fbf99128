#include "libkest/inode_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "btrfs/file_handle.h"
#include "btrfs/inode_flags.h"
#include "btrfs/xattr.h"
#include "libkest/c_call.h"
#include "libkest/fileset_handle.h"
#include "libkest/xattr_blob.h"

namespace kest {

namespace {

constexpr char kCapability[] = "security.capability";
constexpr uint64_t kSector = 4096;

kest_timestruc64_t toTime(const statx_timestamp &time) {
  return {time.tv_sec, time.tv_nsec};
}

bool isOpen(const kest_ifile_t *file) {
  return file != nullptr && file->if_kind == KEST_IFILE_KIND;
}

// 0 or -errno.
int statNow(const OpenInode *file, struct statx *status) {
  constexpr unsigned kMask = STATX_BASIC_STATS | STATX_BTIME;
  return statx(file->path_fd.get(), "", AT_EMPTY_PATH, kMask, status) < 0 ? -errno : 0;
}

// 0 or -errno. An inode of a snapshot is asked once: nothing changes there.
int carriesBlobNow(OpenInode *file, mode_t mode, uint32_t *answer) {
  if (!file->carries_blob || !file->handle->isSnapshot()) {
    unsigned flags = 0;
    if (S_ISREG(mode) || S_ISDIR(mode)) {
      int fd = file->readFd();
      if (fd < 0) return fd;
      if (int rc = readStorageFlags(fd, &flags); rc < 0) return rc;
    }
    std::vector<std::string> names;
    if (int rc = listAttributes(*file, &names); rc < 0) return rc;
    file->carries_blob = flags != 0 || std::any_of(names.begin(), names.end(), travelsInBlob);
  }
  *answer = *file->carries_blob ? 1 : 0;
  return 0;
}

int readAttributes(OpenInode *file, kest_iattr64_t *attr) {
  struct statx status;
  int rc = statNow(file, &status);
  if (rc < 0) return rc;
  *attr = {};
  attr->ia_inode = file->if_inode;
  attr->ia_generation = file->if_generation;
  attr->ia_mode = status.stx_mode;
  attr->ia_nlink = status.stx_nlink;
  attr->ia_size = static_cast<int64_t>(status.stx_size);
  attr->ia_uid = status.stx_uid;
  attr->ia_gid = status.stx_gid;
  attr->ia_rdev = packDevice(status.stx_rdev_major, status.stx_rdev_minor);
  attr->ia_atime = toTime(status.stx_atime);
  attr->ia_mtime = toTime(status.stx_mtime);
  attr->ia_ctime = toTime(status.stx_ctime);
  attr->ia_createtime = toTime(status.stx_btime);
  return carriesBlobNow(file, status.stx_mode, &attr->ia_xattr);
}

// Reads until `size` bytes or the end. Bytes read or -errno.
int64_t readFully(int fd, void *buf, int64_t size, int64_t offset) {
  int64_t done = 0;
  while (done < size) {
    ssize_t n = pread(fd, static_cast<char *>(buf) + done, size - done, offset + done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return done > 0 ? done : -errno;
    if (n == 0) break;
    done += n;
  }
  return done;
}

// Bytes written, fewer than `size` only with `*error` set.
int64_t writeFully(int fd, const void *buf, int64_t size, int64_t offset, int *error) {
  int64_t done = 0;
  while (done < size) {
    ssize_t n = pwrite(fd, static_cast<const char *>(buf) + done, size - done, offset + done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *error = n < 0 ? errno : ENOSPC;
      break;
    }
    done += n;
  }
  return done;
}

int64_t readLink(OpenInode *file, void *buf, int64_t size, int64_t offset) {
  char target[PATH_MAX];
  ssize_t length = readlinkat(file->path_fd.get(), "", target, sizeof target);
  if (length < 0) return -errno;
  if (offset >= length) return 0;
  int64_t n = std::min<int64_t>(size, length - offset);
  memcpy(buf, target + offset, n);
  return n;
}

// Makes [offset, end) a hole where it is not one. 0 or -errno.
int makeHole(int fd, int64_t offset, int64_t end) {
  struct stat status;
  if (fstat(fd, &status) < 0) return -errno;
  for (int64_t at = offset, stop = std::min<int64_t>(end, status.st_size); at < stop;) {
    off_t data = lseek(fd, at, SEEK_DATA);
    if (data < 0 && errno == ENXIO) break;
    if (data < 0) return -errno;
    if (data >= stop) break;
    off_t data_end = lseek(fd, data, SEEK_HOLE);
    if (data_end < 0) return -errno;
    at = std::min<int64_t>(data_end, stop);
    // The rest of the last block would be filled with zeros instead of being freed.
    int64_t to =
        at == status.st_size ? static_cast<int64_t>((at + kSector - 1) / kSector * kSector) : at;
    int rc;
    do rc = fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, data, to - data);
    while (rc < 0 && errno == EINTR);
    if (rc < 0) return -errno;
  }
  if (end > status.st_size && ftruncate(fd, end) < 0) return -errno;
  return 0;
}

int64_t writeOrPunch(OpenInode *file, const void *buf, int64_t len, int64_t offset, bool hole,
                     int *error) {
  int fd = file->writeFd();
  if (fd < 0) return fd;
  int rc = saveCapability(file);
  if (rc < 0) return rc;
  int64_t done = len;
  if (hole) {
    rc = makeHole(fd, offset, offset + len);
    if (rc < 0) return rc;
  } else {
    done = writeFully(fd, buf, len, offset, error);
  }
  rc = putBackCapability(file);
  if (rc < 0) return rc;
  // What was known to differ goes on differing by its extents; anything else has to be compared again.
  ChangedRanges &known = file->changed_ranges;
  auto covers = [&](const ExtentRange &range) {
    return range.start <= static_cast<uint64_t>(offset) &&
           range.start + range.length >= static_cast<uint64_t>(offset + len);
  };
  auto one = std::upper_bound(known.ranges.begin(), known.ranges.end(), static_cast<uint64_t>(offset),
                              [](uint64_t at, const ExtentRange &range) { return at < range.start; });
  if (one == known.ranges.begin() || !covers(*std::prev(one))) known.scan = nullptr;
  return done == 0 && *error != 0 ? -*error : done;
}

// Fills in what is known of every open inode. 0, -EXDEV another tree's, -ENOENT without a name, -errno.
int describe(kest_fssnap_handle *handle, OpenInode *file) {
  struct statx status;
  int rc = statNow(file, &status);
  if (rc < 0) return rc;
  if (status.stx_nlink == 0) return -ENOENT;
  InodeAddress address;
  rc = addressOf(file->path_fd.get(), "", &address);
  if (rc < 0) return rc;
  if (address.subvol_id != handle->subvol_id) return -EXDEV;
  file->handle = handle;
  file->if_inode = address.ino;
  file->if_kind = KEST_IFILE_KIND;
  file->if_gen16 = static_cast<uint16_t>(address.generation);
  file->if_size = status.stx_size;
  file->if_mode = status.stx_mode;
  file->if_generation = address.generation;
  file->created = toTime(status.stx_btime);
  return 0;
}

}  // namespace

uint32_t packDevice(unsigned major_no, unsigned minor_no) {
  unsigned above = (major_no & 0xfff) | ((minor_no >> 8) & 0xf) << 12;
  return above << 16 | (minor_no & 0xff);
}

int openNumber(kest_fssnap_handle *handle, uint64_t ino, std::unique_ptr<OpenInode> *opened) {
  int fd = openEvenNameless(handle->root.get(), handle->subvol_id, ino, 0, O_PATH);
  if (fd < 0) return fd;
  auto file = std::make_unique<OpenInode>();
  file->path_fd.reset(fd);
  int rc = describe(handle, file.get());
  if (rc == 0) *opened = std::move(file);
  return rc;
}

int openDescriptor(kest_fssnap_handle *handle, int fd, std::unique_ptr<OpenInode> *opened) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return -errno;
  if ((flags & (O_ACCMODE | O_PATH)) != O_RDWR) return -EINVAL;
  auto file = std::make_unique<OpenInode>();
  file->path_fd.reset(fd);
  file->path_fd_is_real = true;
  int rc = describe(handle, file.get());
  if (rc == 0 && !S_ISREG(file->if_mode)) rc = -EINVAL;
  if (rc == 0)
    *opened = std::move(file);
  else
    file->path_fd.release();
  return rc;
}

int saveCapability(OpenInode *file) {
  if (file->capability_known) return 0;
  std::string value;
  int rc = readXattr(file->anyFd(), kCapability, &value);
  if (rc < 0 && rc != -ENODATA && rc != -EOPNOTSUPP) return rc;
  if (rc == 0) file->capability = std::move(value);
  file->capability_known = true;
  return 0;
}

int putBackCapability(const OpenInode *file) {
  return file->capability ? writeXattr(file->anyFd(), kCapability, *file->capability) : 0;
}

int statByNumber(kest_fssnap_handle *handle, uint64_t ino, kest_iattr64_t *attr) {
  std::unique_ptr<OpenInode> file;
  int rc = openNumber(handle, ino, &file);
  return rc < 0 ? rc : readAttributes(file.get(), attr);
}

int OpenInode::readFd() {
  if (path_fd_is_real) return path_fd.get();
  if (read_fd) return read_fd.get();
  if (!S_ISREG(if_mode) && !S_ISDIR(if_mode)) return -EINVAL;
  int flags = O_RDONLY | O_NONBLOCK | (S_ISDIR(if_mode) ? O_DIRECTORY : 0);
  int fd = reopen(path_fd.get(), flags | O_NOATIME);
  if (fd == -EPERM) fd = reopen(path_fd.get(), flags);
  if (fd >= 0) read_fd.reset(fd);
  return fd;
}

int OpenInode::writeFd() {
  if (path_fd_is_real) return path_fd.get();
  if (write_fd) return write_fd.get();
  if (!S_ISREG(if_mode)) return -EINVAL;
  int fd = reopen(path_fd.get(), O_WRONLY | O_NONBLOCK);
  if (fd == -EPERM) {
    Protection protection;
    if (readProtection(path_fd.get(), "", &protection) == 0 && protection.any()) return -EROFS;
  }
  if (fd >= 0) write_fd.reset(fd);
  return fd;
}

}  // namespace kest

using namespace kest;

extern "C" {

kest_ifile_t *kest_iopen64(kest_fssnap_handle_t *handle, uint64_t ino, int, const void *,
                           const char *) {
  std::unique_ptr<OpenInode> file;
  cCall([&] { return handle == nullptr ? -EINVAL : openNumber(handle, ino, &file); });
  return file.release();
}

kest_ifile_t *kest_iopen_fd(kest_fssnap_handle_t *handle, int fd) {
  std::unique_ptr<OpenInode> file;
  cCall([&] { return handle == nullptr || fd < 0 ? -EINVAL : openDescriptor(handle, fd, &file); });
  return file.release();
}

int kest_iclose(kest_ifile_t *file) {
  if (!isOpen(file)) {
    errno = EINVAL;
    return -1;
  }
  file->if_kind = 0;
  delete openInode(file);
  return 0;
}

int kest_same_file(const kest_ifile_t *a, const kest_ifile_t *b) {
  if (!isOpen(a) || !isOpen(b)) return 0;
  const kest_timestruc64_t &x = openInode(a)->created, &y = openInode(b)->created;
  return a->if_inode == b->if_inode && a->if_generation == b->if_generation && x.tv_sec == y.tv_sec &&
         x.tv_nsec == y.tv_nsec && ((a->if_mode ^ b->if_mode) & S_IFMT) == 0;
}

int kest_istat(const kest_ifile_t *file, kest_iattr64_t *attr) {
  return cCall([&] {
    if (!isOpen(file) || attr == nullptr) return -EINVAL;
    // Reading the flags may open the inode, which changes nothing that a caller sees.
    return readAttributes(openInode(const_cast<kest_ifile_t *>(file)), attr);
  });
}

int kest_idevice(const kest_ifile_t *file, unsigned *major_no, unsigned *minor_no) {
  return cCall([&] {
    if (!isOpen(file) || !(S_ISCHR(file->if_mode) || S_ISBLK(file->if_mode))) return -EINVAL;
    struct statx status;
    int rc = statNow(openInode(file), &status);
    if (rc < 0) return rc;
    *major_no = status.stx_rdev_major;
    *minor_no = status.stx_rdev_minor;
    return 0;
  });
}

int64_t kest_iread(kest_ifile_t *file, void *buf, int64_t size, int64_t *offset) {
  return cCall([&]() -> int64_t {
    if (!isOpen(file) || offset == nullptr || *offset < 0 || size < 0) return -EINVAL;
    int64_t n;
    if (S_ISLNK(file->if_mode)) {
      n = readLink(openInode(file), buf, size, *offset);
    } else {
      int fd = openInode(file)->readFd();
      if (fd < 0) return fd;
      n = readFully(fd, buf, size, *offset);
    }
    if (n > 0) *offset += n;
    return n;
  });
}

int64_t kest_iwritex(kest_ifile_t *file, const void *buf, int64_t len, int64_t offset, int hole) {
  int error = 0;
  int64_t done = cCall([&]() -> int64_t {
    if (!isOpen(file) || offset < 0 || len < 0 || offset > INT64_MAX - len) return -EINVAL;
    if (len == 0) return 0;
    if ((buf == nullptr) != (hole != 0)) return -EINVAL;
    return writeOrPunch(openInode(file), buf, len, offset, hole != 0, &error);
  });
  if (error != 0) errno = error;
  return done;
}

}  // extern "C"
