#include "btrfs/file_handle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/leases.h"
#include "btrfs/tree_search.h"

namespace kest {

namespace {

constexpr int kHandleType = 0x4d;  // FILEID_BTRFS_WITHOUT_PARENT: inode, subvolume, generation

struct RawHandle {
  uint64_t ino;
  uint64_t subvol_id;
  uint32_t generation;
} __attribute__((packed));

struct HandleBuffer {
  alignas(file_handle) unsigned char bytes[sizeof(file_handle) + MAX_HANDLE_SZ];
  file_handle *get() { return reinterpret_cast<file_handle *>(bytes); }
};

}  // namespace

int openEvenNameless(int mount_fd, uint64_t subvol_id, uint64_t ino, uint32_t generation, int flags) {
  if (ino < kFirstInode || ino > kLastInode) return -ENOENT;
  HandleBuffer buffer;
  RawHandle raw{ino, subvol_id, generation};
  buffer.get()->handle_bytes = sizeof raw;
  buffer.get()->handle_type = kHandleType;
  memcpy(buffer.get()->f_handle, &raw, sizeof raw);
  int fd;
  do fd = open_by_handle_at(mount_fd, buffer.get(), flags | O_CLOEXEC);
  while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno == ESTALE ? -ENOENT : -errno;
  return fd;
}

int openByInode(int mount_fd, uint64_t subvol_id, uint64_t ino, uint32_t generation, int flags) {
  int fd = openEvenNameless(mount_fd, subvol_id, ino, generation, flags);
  if (fd < 0) return fd;
  UniqueFd owner(fd);
  struct stat status;
  if (fstat(fd, &status) < 0) return -errno;
  if (status.st_nlink == 0) return -ENOENT;
  return owner.release();
}

int openAgain(int path_fd, int flags) {
  char path[32];
  snprintf(path, sizeof path, "/proc/self/fd/%d", path_fd);
  const auto attempt = [&](int waiting) {
    int fd;
    do fd = open(path, flags | waiting | O_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    return fd;
  };
  const int fd = (flags & (O_PATH | O_DIRECTORY)) != 0 ? attempt(0) : openPastLeases(attempt);
  return fd < 0 ? -errno : fd;
}

int addressOf(int dir_fd, const char *name, InodeAddress *address) {
  HandleBuffer buffer;
  buffer.get()->handle_bytes = MAX_HANDLE_SZ;
  int flags = name[0] == 0 ? AT_EMPTY_PATH : 0;
  if (name_to_handle_at(dir_fd, name, buffer.get(), &address->mount_id, flags) < 0) return -errno;
  RawHandle raw;
  if (buffer.get()->handle_type != kHandleType || buffer.get()->handle_bytes != sizeof raw)
    return -EXDEV;
  memcpy(&raw, buffer.get()->f_handle, sizeof raw);
  address->subvol_id = raw.subvol_id;
  address->ino = raw.ino;
  address->generation = raw.generation;
  return 0;
}

}  // namespace kest
