#include "btrfs/directory.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "base/fd_path.h"
#include "btrfs/beneath.h"
#include "btrfs/clone.h"
#include "btrfs/file_handle.h"
#include "btrfs/frozen_inode.h"
#include "btrfs/inode.h"
#include "btrfs/inode_flags.h"
#include "filesystem/clone_attribute.h"

namespace kest {

namespace {

int resultOf(int rc) {
  return rc == 0 ? 0 : -errno;
}

// Returns a descriptor, or -1 and errno.
int openObjectAt(int dir, const std::string &name) {
  const size_t end = name.find_last_not_of('/') + 1;
  // With a slash after the name the kernel would follow a symbolic link, so ask for a directory
  // instead.
  const int directory = end < name.size() ? O_DIRECTORY : 0;
  return openat(dir, name.substr(0, end).c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC | directory);
}

int fdOf(const Directory &dir) {
  return static_cast<const BtrfsDirectory &>(dir).fd();
}

// RESOLVE_NO_XDEV refuses mounts but not nested subvolumes, which have a device number of their own.
int refuseOtherTree(const TreeRoot &root, int dir, struct stat *st) {
  if (fstat(dir, st) != 0) return -errno;
  return st->st_dev == root.device ? 0 : -EXDEV;
}

// A directory of a read-only tree. A worker looks at the name of an inode whose items it has just read.
class FrozenDirectory : public BtrfsDirectory {
 public:
  FrozenDirectory(UniqueFd fd, const TreeRoot &root, TreeReader &tree, uint64_t ino)
      : BtrfsDirectory(std::move(fd)), root_(root), tree_(tree), ino_(ino) {}

  int stat(const std::string &name, struct stat *st) override {
    InodeItem item;
    const uint64_t ino = findCachedName(tree_, ino_, name);
    if (ino == 0 || readInode(tree_, ino, &item) <= 0) return BtrfsDirectory::stat(name, st);
    statOfItem(root_, ino, item, st);
    return 0;
  }

 private:
  const TreeRoot &root_;
  TreeReader &tree_;
  const uint64_t ino_;
};

// Checks that `name` is the nested subvolume `id`. 0, -ESTALE or -errno.
int expectFileset(int dir, const std::string &name, uint64_t id) {
  InodeAddress address;
  if (int rc = addressOf(dir, name.c_str(), &address); rc != 0) return rc == -EXDEV ? -ESTALE : rc;
  return address.subvol_id == id && address.ino == kFirstInode ? 0 : -ESTALE;
}

}  // namespace

int BtrfsDirectory::stat(const std::string &name, struct stat *st) {
  return resultOf(fstatat(fd(), name.c_str(), st, AT_SYMLINK_NOFOLLOW));
}

int BtrfsDirectory::openObject(const std::string &name, std::unique_ptr<Inode> *object,
                               struct stat *st) {
  UniqueFd opened(openObjectAt(fd(), name));
  if (!opened || fstat(opened.get(), st) != 0) return -errno;
  auto inode = std::make_unique<BtrfsInode>(std::move(opened), BtrfsInode::Held::kPath);
  inode->learn(*st);
  *object = std::move(inode);
  return 0;
}

int BtrfsDirectory::makeDirectory(const std::string &name, mode_t mode) {
  return resultOf(mkdirat(fd(), name.c_str(), mode));
}

int BtrfsDirectory::makeNode(const std::string &name, mode_t mode, dev_t device) {
  return resultOf(mknodat(fd(), name.c_str(), mode, device));
}

int BtrfsDirectory::makeSymlink(const std::string &name, const char *target) {
  return resultOf(symlinkat(target, fd(), name.c_str()));
}

int BtrfsDirectory::link(Inode &inode, const std::string &name) {
  return resultOf(linkat(asBtrfs(inode).fd(), "", fd(), name.c_str(), AT_EMPTY_PATH));
}

int BtrfsDirectory::rename(const std::string &name, Directory &to, const std::string &to_name) {
  const int target = static_cast<BtrfsDirectory &>(to).fd();
  return resultOf(renameat2(fd(), name.c_str(), target, to_name.c_str(), RENAME_NOREPLACE));
}

int BtrfsDirectory::renameFileset(const std::string &name, uint64_t id, Directory &to,
                                  const std::string &to_name) {
  auto &target = static_cast<BtrfsDirectory &>(to);
  if (int rc = expectFileset(fd(), name, id); rc != 0) return rc;
  int rc = movingSubvolume(fd(), name, [&] { return rename(name, to, to_name); });
  if (rc != 0) return rc;
  // A user with write access to the directory can have exchanged the name after the check, so check
  // again and undo.
  if (expectFileset(target.fd(), to_name, id) != -ESTALE) return 0;
  rc = target.rename(to_name, *this, name);
  return rc != 0 ? rc : -ESTALE;
}

int BtrfsDirectory::removeFile(const std::string &name) {
  return resultOf(unlinkat(fd(), name.c_str(), 0));
}

int BtrfsDirectory::removeDirectory(const std::string &name) {
  return resultOf(unlinkat(fd(), name.c_str(), AT_REMOVEDIR));
}

int BtrfsDirectory::makeClone(const std::string &name, Inode &parent) {
  return kest::makeClone(fd(), name, asBtrfs(parent));
}

int BtrfsDirectory::carriesClone(const std::string &name) {
  const std::string path = FdPath(fd()).get() + ("/" + name);
  if (lgetxattr(path.c_str(), kCloneAttribute, nullptr, 0) >= 0) return 1;
  return errno == ENODATA || errno == EOPNOTSUPP ? 0 : -errno;
}

int BtrfsDirectory::readProtection(const std::string &name, Protection *protection) {
  return kest::readProtection(fd(), name.c_str(), protection);
}

int BtrfsDirectory::holdsFileset(const std::string &name) {
  struct stat parent, st;
  if (fstatat(fd(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return -errno;
  if (!S_ISDIR(st.st_mode) || st.st_ino != kFirstInode) return 0;
  if (fstat(fd(), &parent) != 0) return -errno;
  return st.st_dev != parent.st_dev;
}

int openDirectoryBeneath(const TreeRoot &root, TreeReader *frozen, int start_fd, std::string_view path,
                         std::unique_ptr<Directory> *dir) {
  UniqueFd fd;
  struct stat st;
  if (int rc = openBeneath(start_fd, path, &fd); rc != 0) return rc;
  if (int rc = refuseOtherTree(root, fd.get(), &st); rc != 0) return rc;
  if (frozen != nullptr)
    *dir = std::make_unique<FrozenDirectory>(std::move(fd), root, *frozen, st.st_ino);
  else
    *dir = std::make_unique<BtrfsDirectory>(std::move(fd));
  return 0;
}

int openNamed(const TreeRoot &root, TreeReader *frozen, const Directory &dir, const std::string &name,
              std::unique_ptr<Inode> *inode) {
  UniqueFd fd(openObjectAt(fdOf(dir), name));
  if (!fd) return -errno;
  if (frozen != nullptr) {
    struct stat st;
    if (fstat(fd.get(), &st) != 0) return -errno;
    if (st.st_dev != root.device) return -EXDEV;
    return adoptFrozenInode(root, *frozen, st.st_ino, std::move(fd), inode);
  }
  auto opened = std::make_unique<BtrfsInode>(std::move(fd), BtrfsInode::Held::kPath, &root);
  const int rc = opened->learnAll();
  if (rc == 0) *inode = std::move(opened);
  return rc;
}

int createFile(const TreeRoot &root, const Directory &dir, const std::string &name, mode_t mode,
               std::unique_ptr<Inode> *inode) {
  UniqueFd fd(
      openat(fdOf(dir), name.c_str(), O_CREAT | O_EXCL | O_RDWR | O_NOFOLLOW | O_CLOEXEC, mode));
  if (!fd) return -errno;
  auto made = std::make_unique<BtrfsInode>(std::move(fd), BtrfsInode::Held::kReal, &root);
  if (int rc = made->learnStatus(); rc < 0) return rc;
  // The umask and an inherited ACL may have cleared bits of the mode.
  if ((made->facts().mode & 07777) != mode) {
    if (int rc = made->changeMode(mode); rc != 0) return rc;
    if (int rc = made->learnStatus(); rc < 0) return rc;
  }
  *inode = std::move(made);
  return 0;
}

int duplicateDirectory(const TreeRoot &root, int fd, std::unique_ptr<Directory> *dir) {
  UniqueFd duplicate(fcntl(fd, F_DUPFD_CLOEXEC, 0));
  struct stat st;
  if (!duplicate) return -errno;
  if (int rc = refuseOtherTree(root, duplicate.get(), &st); rc != 0) return rc;
  *dir = std::make_unique<BtrfsDirectory>(std::move(duplicate));
  return 0;
}

int openDirectoryAnywhere(std::string_view path, std::unique_ptr<Directory> *dir) {
  UniqueFd fd;
  if (int rc = openBeneath(AT_FDCWD, path, &fd); rc != 0) return rc;
  *dir = std::make_unique<BtrfsDirectory>(std::move(fd));
  return 0;
}

}  // namespace kest
