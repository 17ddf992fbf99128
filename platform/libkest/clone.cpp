#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <utility>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "btrfs/fd_path.h"
#include "btrfs/file_handle.h"
#include "btrfs/inode_flags.h"
#include "btrfs/subvolume.h"
#include "kest.h"
#include "libkest/clone_attribute.h"
#include "libkest/lifted_flags.h"
#include "libkest/open_inode.h"
#include "libkest/posix_view.h"

namespace kest {
namespace {

constexpr mode_t kCloneMode = 0600;
constexpr unsigned kDeepest = UINT16_MAX;

// -EBUSY while somebody has the file open for writing: such a descriptor would go on writing to it.
int refuseWriters(int fd) {
  // The kernel grants a read lease to files without writers only. Should one come along before the
  // lease is given back, the holder gets a signal: one that is ignored by default.
  if (fcntl(fd, F_SETSIG, SIGURG) != 0) return 0;
  if (fcntl(fd, F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN ? -EBUSY : 0;
  fcntl(fd, F_SETLEASE, F_UNLCK);
  return 0;
}

int makeParent(int object_fd, mode_t mode) {
  if (!S_ISREG(mode)) return -EINVAL;
  Protection protection;
  if (int rc = readProtection(object_fd, "", &protection); rc != 0) return rc;
  if (protection.any()) return -EROFS;
  int fd = reopen(object_fd, O_RDONLY | O_NONBLOCK | O_NOATIME);
  if (fd < 0) return fd;
  UniqueFd file(fd);
  if (int rc = refuseWriters(fd); rc != 0) return rc;

  CloneAttribute attribute;
  if (int rc = readCloneAttribute(fd, &attribute); rc < 0) return rc;
  // The attribute first: it could not be set on an immutable file. A process lost in between leaves a
  // parent without the flag, which the next call finishes.
  if (!attribute.isParent()) {
    attribute.setIsParent();
    int rc = writeCloneAttribute(fd, attribute);
    if (rc == -EPERM && flagsForbid({fd, "", true})) return -EROFS;  // somebody else was faster
    if (rc != 0) return rc;
  }
  return writeProtection(fd, {.immutable = true, .append_only = false});
}

// Opens a clone parent for reading. 0; -EINVAL it is none; -errno.
int openParent(int object_fd, mode_t mode, UniqueFd *file, CloneAttribute *attribute) {
  if (!S_ISREG(mode)) return -EINVAL;
  int rc = readCloneAttribute(object_fd, attribute);
  if (rc < 0) return rc;
  if (rc == 0 || !attribute->isParent()) return -EINVAL;
  int fd = reopen(object_fd, O_RDONLY | O_NONBLOCK | O_NOATIME);
  if (fd < 0) return fd;
  file->reset(fd);
  return 0;
}

// What makes `clone` a clone of `parent`, whose attribute is `of_parent`. 0 or -errno.
int describeClone(int parent, const CloneAttribute &of_parent, int clone, CloneAttribute *attribute) {
  struct stat st;
  if (fstat(parent, &st) != 0) return -errno;
  attribute->setParent(st.st_ino);
  if (of_parent.depth() == kDeepest) return -EOVERFLOW;
  attribute->setDepth(of_parent.depth() + 1);

  Uuid parent_fs, clone_fs;
  int rc = fileSystemIdOf(parent, &parent_fs);
  if (rc == 0) rc = fileSystemIdOf(clone, &clone_fs);
  if (rc == -ENOTTY || (rc == 0 && parent_fs != clone_fs)) return -EXDEV;
  if (rc != 0) return rc;
  uint64_t parent_tree, clone_tree;
  rc = subvolumeIdOf(parent, &parent_tree);
  if (rc == 0) rc = subvolumeIdOf(clone, &clone_tree);
  if (rc != 0 || parent_tree == clone_tree) return rc;
  SubvolumeTable table;
  if (rc = table.load(clone); rc != 0) return rc;
  if (!table.related(parent_tree, clone_tree, nullptr)) return -EXDEV;
  if (parent_tree > UINT32_MAX) return -EOVERFLOW;
  attribute->setSnapshot(static_cast<uint32_t>(parent_tree));
  return 0;
}

// Files with and without copy-on-write cannot share; a file can change sides while it is empty.
int matchCopyOnWrite(int parent, int clone) {
  unsigned wanted, now;
  int rc = readStorageFlags(parent, &wanted);
  if (rc == 0) rc = readStorageFlags(clone, &now);
  if (rc != 0 || ((wanted ^ now) & FS_NOCOW_FL) == 0) return rc;
  // Not both at a time: an inherited compression would forbid no-copy-on-write.
  rc = writeStorageFlags(clone, 0);
  return rc == 0 && (wanted & FS_NOCOW_FL) != 0 ? writeStorageFlags(clone, FS_NOCOW_FL) : rc;
}

int makeClone(int parent_fd, mode_t parent_mode, const Place &place) {
  UniqueFd parent;
  CloneAttribute of_parent, attribute;
  if (int rc = openParent(parent_fd, parent_mode, &parent, &of_parent); rc != 0) return rc;
  struct stat st;
  if (fstatat(place.dir.get(), place.leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) return -EEXIST;
  if (errno != ENOENT) return -errno;
  if (place.leaf.back() == '/') return -EISDIR;

  // Without a name until it is whole, so that a process that is lost on the way leaves nothing behind.
  UniqueFd clone(openat(place.dir.get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, kCloneMode));
  if (!clone) return outcome(-1, {takingDirectory(place)});
  int rc = setExactMode(clone.get(), kCloneMode);
  if (rc == 0) rc = describeClone(parent.get(), of_parent, clone.get(), &attribute);
  if (rc == 0) rc = matchCopyOnWrite(parent.get(), clone.get());
  if (rc == 0) rc = writeCloneAttribute(clone.get(), attribute);
  if (rc != 0) return rc;
  do {
    rc = ioctl(clone.get(), FICLONE, parent.get());
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) return -errno;
  return outcome(linkat(AT_FDCWD, FdPath(clone.get()).get(), place.dir.get(), place.leaf.c_str(),
                        AT_SYMLINK_FOLLOW),
                 {takingDirectory(place)});
}

int setParentNumber(OpenInode *file, uint64_t parent) {
  int fd = file->path_fd.get();
  CloneAttribute attribute;
  if (!S_ISREG(file->if_mode)) return -EINVAL;
  int rc = readCloneAttribute(fd, &attribute);
  if (rc < 0) return rc;
  if (rc == 0 || attribute.depth() == 0) return -EINVAL;
  if (attribute.parent() == parent) return 0;
  attribute.setParent(parent);

  Protection protection;
  rc = readProtection(fd, "", &protection);
  if (rc == 0 && attribute.isParent()) protection.immutable = true;  // also where it is lifted just now
  if (rc != 0) return rc;
  if (!protection.any()) return writeCloneAttribute(fd, attribute);
  LiftedFlags lifted;
  rc = lifted.lift(fd, protection);
  if (rc == 0) rc = writeCloneAttribute(fd, attribute);
  int set = lifted.setAgain();
  return rc != 0 ? rc : set;
}

}  // namespace
}  // namespace kest

using namespace kest;

extern "C" int kest_clone_snap(const char *path, const char *) {
  return onPath(nullptr, path, [](const Place &place) {
    UniqueFd fd;
    struct stat st;
    int rc = openObject(place, &fd, &st);
    return rc == 0 ? makeParent(fd.get(), st.st_mode) : rc;
  });
}

extern "C" int kest_clone_copy(const char *parent_path, const char *path) {
  return onTwoPaths(nullptr, parent_path, path, [](const Place &parent, const Place &place) {
    UniqueFd fd;
    struct stat st;
    int rc = openObject(parent, &fd, &st);
    return rc == 0 ? makeClone(fd.get(), st.st_mode, place) : rc;
  });
}

extern "C" int kest_iclone_snap(kest_ifile_t *file) {
  return cCall([=] {
    if (file == nullptr || file->if_kind != KEST_IFILE_KIND) return -EINVAL;
    return makeParent(openInode(file)->path_fd.get(), file->if_mode);
  });
}

extern "C" int kest_iclone_copy(kest_ifile_t *parent, kest_fssnap_handle_t *active, const char *path) {
  return onPath(active, path, [=](const Place &place) {
    if (parent == nullptr || parent->if_kind != KEST_IFILE_KIND) return -EINVAL;
    return makeClone(openInode(parent)->path_fd.get(), parent->if_mode, place);
  });
}

extern "C" int kest_iclone_attr(kest_ifile_t *file, uint8_t clone[16], uint8_t clone_snap[8]) {
  return cCall([&] {
    if (file == nullptr || file->if_kind != KEST_IFILE_KIND) return -EINVAL;
    if (!S_ISREG(file->if_mode)) return 0;
    CloneAttribute attribute;
    // Most callers go on to read the file.
    const int fd = openInode(file)->readFd();
    int rc = fd < 0 ? fd : readCloneAttribute(fd, &attribute);
    if (rc <= 0) return rc;
    if (clone != nullptr) std::copy(attribute.clone.begin(), attribute.clone.end(), clone);
    if (clone_snap != nullptr)
      std::copy(attribute.clone_snap.begin(), attribute.clone_snap.end(), clone_snap);
    return 1;
  });
}

extern "C" int kest_iset_clone_parent(kest_ifile_t *file, uint64_t parent) {
  return cCall([&] {
    if (file == nullptr || file->if_kind != KEST_IFILE_KIND) return -EINVAL;
    return setParentNumber(openInode(file), parent);
  });
}
