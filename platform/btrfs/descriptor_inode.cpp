#include "btrfs/descriptor_inode.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/fd_path.h"
#include "btrfs/file_handle.h"
#include "btrfs/inode_flags.h"
#include "btrfs/xattr.h"

namespace kest {

namespace {

constexpr int64_t kSector = 4096;

// How often, and how long, to wait for a running program to end.
constexpr int kMostWaits = 200;
constexpr useconds_t kWaitMicroseconds = 10000;

int resultOf(int rc) {
  return rc == 0 ? 0 : -errno;
}

// Returns the start of the hole after the data at `offset`, or -errno. In the last block of a file of
// the greatest size the kernel's sum overflows, and lseek returns INT64_MIN.
int64_t holeAfter(int fd, int64_t offset) {
  const off_t hole = lseek(fd, offset, SEEK_HOLE);
  return hole == INT64_MIN ? INT64_MAX : hole < 0 ? -errno : hole;
}

// Makes [from, to) of a file of `size` bytes a hole. 0 or -errno.
int punch(int fd, int64_t from, int64_t to, int64_t size) {
  if (to == size) {
    // A hole that ends inside the last block would fill that block with zeros instead of freeing it, so
    // extend it to the block's end. For a file of the greatest size that is no valid offset, so cut and
    // extend the file instead.
    if (size > INT64_MAX - kSector)
      return ftruncate(fd, from) == 0 && ftruncate(fd, size) == 0 ? 0 : -errno;
    to = (to + kSector - 1) / kSector * kSector;
  }
  int rc;
  do rc = fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, from, to - from);
  while (rc < 0 && errno == EINTR);
  return resultOf(rc);
}

}  // namespace

DescriptorInode::~DescriptorInode() {
  if (held_ == Held::kBorrowed) fd_.release();
}

int DescriptorInode::anyFd() const {
  if (read_fd_) return read_fd_.get();
  return write_fd_ ? write_fd_.get() : fd();
}

int DescriptorInode::readFd() {
  const int path_fd = this->fd();  // can open the inode and change held_
  if (held_ != Held::kPath) return path_fd;
  if (read_fd_) return read_fd_.get();
  const mode_t mode = facts_.mode;
  if (!S_ISREG(mode) && !S_ISDIR(mode)) return -EINVAL;
  const int flags = O_RDONLY | (S_ISDIR(mode) ? O_DIRECTORY : 0);
  if (path_fd < 0) return path_fd;
  int fd = openAgain(path_fd, flags | O_NOATIME);
  if (fd == -EPERM) fd = openAgain(path_fd, flags);
  if (fd >= 0) read_fd_.reset(fd);
  return fd;
}

int DescriptorInode::writeFd() {
  if (held_ == Held::kForBoth) held_ = Held::kReal;
  if (held_ == Held::kReal || held_ == Held::kBorrowed) return fd_.get();
  if (write_fd_) return write_fd_.get();
  if (!S_ISREG(facts_.mode)) return -EINVAL;
  const int any = this->fd();
  if (any < 0) return any;
  int fd = openAgain(any, O_WRONLY);
  // The restore replaces programs that ran when it began. One that was started since may end soon.
  for (int waits = 0; fd == -ETXTBSY && waits < kMostWaits; ++waits) {
    usleep(kWaitMicroseconds);
    fd = openAgain(any, O_WRONLY);
  }
  if (fd == -EPERM) {
    Protection protection;
    if (readProtection(&protection) == 0 && protection.any()) return -EROFS;
  }
  if (fd >= 0) write_fd_.reset(fd);
  return fd;
}

int DescriptorInode::giveUpWriting() {
  if (held_ != Held::kForBoth) return 0;
  int fd = openAgain(fd_.get(), O_RDONLY | O_NOATIME);
  if (fd == -EPERM) fd = openAgain(fd_.get(), O_RDONLY);
  if (fd < 0) return fd;
  fd_.reset(fd);
  held_ = Held::kForReading;
  return 0;
}

int DescriptorInode::openForReading() {
  return std::min(readFd(), 0);
}

int DescriptorInode::openForWriting() {
  return std::min(writeFd(), 0);
}

int64_t DescriptorInode::read(void *buf, int64_t size, int64_t offset) {
  const int fd = readFd();
  if (fd < 0) return fd;
  int64_t done = 0;
  while (done < size) {
    const ssize_t n = pread(fd, static_cast<char *>(buf) + done, size - done, offset + done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return done > 0 ? done : -errno;
    if (n == 0) break;
    done += n;
  }
  return done;
}

int64_t DescriptorInode::write(const void *buf, int64_t size, int64_t offset, int *error) {
  const int fd = writeFd();
  if (fd < 0) return fd;
  int64_t done = 0;
  while (done < size) {
    const ssize_t n = pwrite(fd, static_cast<const char *>(buf) + done, size - done, offset + done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *error = n < 0 ? errno : ENOSPC;
      break;
    }
    done += n;
  }
  return done;
}

int DescriptorInode::makeHole(int64_t offset, int64_t end) {
  const int fd = writeFd();
  if (fd < 0) return fd;
  struct stat status;
  if (fstat(fd, &status) < 0) return -errno;
  // Extend the file first: if its last block is a partial one in a hole, the kernel fills that block
  // with zeros, which the loop punches out.
  if (end > status.st_size) {
    if (ftruncate(fd, end) != 0) return -errno;
    status.st_size = end;
  }
  for (int64_t at = offset; at < end;) {
    const off_t data = lseek(fd, at, SEEK_DATA);
    if (data < 0 && errno == ENXIO) break;
    if (data < 0) return -errno;
    if (data >= end) break;
    const int64_t data_end = holeAfter(fd, data);
    if (data_end < 0) return static_cast<int>(data_end);
    at = std::min<int64_t>(data_end, end);
    if (int rc = punch(fd, data, at, status.st_size); rc < 0) return rc;
  }
  return 0;
}

int DescriptorInode::truncate(int64_t size) {
  const int fd = writeFd();
  if (fd < 0) return fd;
  int rc;
  do rc = ftruncate(fd, size);
  while (rc != 0 && errno == EINTR);
  return resultOf(rc);
}

// lseek takes data in the page cache into account and reports preallocated space as a hole.
int DescriptorInode::stretchAt(int64_t offset, int64_t end, int64_t *stop, bool *hole) {
  const int fd = readFd();
  if (fd < 0) return fd;
  const off_t data = lseek(fd, offset, SEEK_DATA);
  if (data < 0 && errno != ENXIO) return -errno;
  *hole = data != offset;
  off_t next = data < 0 ? end : data;
  if (!*hole) {
    next = holeAfter(fd, offset);
    if (next < 0) return static_cast<int>(next);
  }
  *stop = std::min<int64_t>(next, end);
  return 0;
}

int DescriptorInode::readLink(std::string *target) {
  const int path_fd = fd();
  if (path_fd < 0) return path_fd;
  char buffer[PATH_MAX];
  const ssize_t length = readlinkat(path_fd, "", buffer, sizeof buffer);
  if (length < 0) return -errno;
  target->assign(buffer, static_cast<size_t>(length));
  return 0;
}

int DescriptorInode::stat(struct stat *st) {
  const int fd = anyFd();
  return fd < 0 ? fd : resultOf(fstat(fd, st));
}

int DescriptorInode::changeMode(mode_t mode) {
  const int fd = anyFd();
  return fd < 0 ? fd : resultOf(::changeMode(fd, mode));
}

int DescriptorInode::changeOwner(uid_t uid, gid_t gid) {
  const int fd = anyFd();
  return fd < 0 ? fd : resultOf(fchownat(fd, "", uid, gid, AT_EMPTY_PATH));
}

int DescriptorInode::setTimes(const struct timespec times[2]) {
  const int fd = anyFd();
  return fd < 0 ? fd : resultOf(utimensat(fd, "", times, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH));
}

int DescriptorInode::listXattrs(std::vector<std::string> *names) {
  const int fd = anyFd();
  return fd < 0 ? fd : kest::listXattrs(fd, names);
}

int DescriptorInode::readXattr(const char *name, std::string *value) {
  const int fd = anyFd();
  return fd < 0 ? fd : kest::readXattr(fd, name, value);
}

int DescriptorInode::writeXattr(const char *name, const std::string &value) {
  const int fd = anyFd();
  return fd < 0 ? fd : kest::writeXattr(fd, name, value);
}

int DescriptorInode::removeXattr(const char *name) {
  const int fd = anyFd();
  return fd < 0 ? fd : kest::removeXattr(fd, name);
}

int DescriptorInode::readProtection(Protection *protection) {
  const int fd = anyFd();
  return fd < 0 ? fd : kest::readProtection(fd, "", protection);
}

// Runs `call`(descriptor) with a descriptor that was not opened with O_PATH.
template <typename Call>
int DescriptorInode::onRealDescriptor(Call call) {
  if (held_ == Held::kPath) {
    const int fd = readFd();
    return fd < 0 ? fd : call(fd);
  }
  const int rc = call(fd_.get());
  if (rc != -EBADF) return rc;
  const UniqueFd real(openAgain(fd_.get(), O_RDONLY | O_NOATIME));
  return real ? call(real.get()) : real.get();
}

int DescriptorInode::writeProtection(Protection protection) {
  return onRealDescriptor([=](int fd) { return kest::writeProtection(fd, protection); });
}

int DescriptorInode::writeFlags(uint32_t flags) {
  return onRealDescriptor([=](int fd) { return kest::writeFlags(fd, flags); });
}

int DescriptorInode::duplicateDescriptor() {
  const int fd = anyFd();
  if (fd < 0) return fd;
  const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  return copy >= 0 ? copy : -errno;
}

int DescriptorInode::takeDescriptor() {
  return fd_.release();
}

}  // namespace kest
