#include "btrfs/frozen_inode.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "btrfs/attributes.h"
#include "btrfs/file_handle.h"
#include "btrfs/inode_flags.h"

namespace kest {

namespace {

constexpr uint64_t kBlockBits = 9;  // st_blocks counts units of 512 bytes
constexpr blksize_t kSector = 4096;

struct timespec toTimespec(const TreeTime &time) {
  return {time.sec, static_cast<long>(time.nsec)};
}

DescriptorInode::Held heldOf(mode_t mode, const UniqueFd &fd) {
  return S_ISREG(mode) && !fd ? DescriptorInode::Held::kForReading : DescriptorInode::Held::kPath;
}

}  // namespace

int readStored(TreeReader &tree, uint64_t ino, StoredInode *stored) {
  if (ino < kFirstInode || ino > kLastInode) return -ENOENT;
  int rc = readInode(tree, ino, &stored->item);
  if (rc < 0) return rc;
  if (rc == 0 || stored->item.nlink == 0) return -ENOENT;
  rc = readXattrs(tree, ino, &stored->xattrs);
  return std::min(rc, 0);
}

FrozenInode::FrozenInode(const TreeRoot &root, uint64_t ino, StoredInode stored, UniqueFd fd)
    : BtrfsInode(UniqueFd(), heldOf(stored.item.mode, fd), &root),
      tree_root_(root),
      stored_(std::move(stored)) {
  if (fd) keep(std::move(fd));
  facts_.ino = ino;
  facts_.generation = stored_.item.generation;
  facts_.size = stored_.item.size;
  facts_.mode = stored_.item.mode;
  facts_.created = {stored_.item.otime.sec, stored_.item.otime.nsec};
}

int FrozenInode::stat(struct stat *st) {
  statOfItem(tree_root_, facts_.ino, stored_.item, st);
  return 0;
}

void statOfItem(const TreeRoot &root, uint64_t ino, const InodeItem &item, struct stat *st) {
  *st = {};
  st->st_dev = root.device;
  st->st_ino = ino;
  st->st_mode = item.mode;
  st->st_nlink = item.nlink;
  st->st_uid = item.uid;
  st->st_gid = item.gid;
  st->st_rdev = makedev(item.rdev >> 20, item.rdev & 0xfffff);
  st->st_size = static_cast<off_t>(item.size);
  st->st_blksize = kSector;
  st->st_blocks = static_cast<blkcnt_t>((item.nbytes + kSector - 1) / kSector * kSector >> kBlockBits);
  st->st_atim = toTimespec(item.atime);
  st->st_mtim = toTimespec(item.mtime);
  st->st_ctim = toTimespec(item.ctime);
}

int FrozenInode::readAttributes(kest_iattr64_t *attr) {
  fillAttributes(facts_.ino, stored_.item, stored_.xattrs, attr);
  return 0;
}

int FrozenInode::readFacts(kest_facts_t *facts) {
  *facts = {};
  readAttributes(&facts->attr);
  facts->protection = protectionBitsOfItem(stored_.item.mode, stored_.item.flags);
  facts->has = facts->attr.ia_xattr != 0 ? KEST_HAS_BLOB : 0;
  for (const XattrItem &one : stored_.xattrs) facts->has |= factOfXattr(one.name);
  return 0;
}

int FrozenInode::listXattrs(std::vector<std::string> *names) {
  names->clear();
  for (const XattrItem &one : stored_.xattrs) names->push_back(one.name);
  return 0;
}

// The tree holds the value of a user or trusted attribute as it was set. Other values, such as ACLs and
// those of security modules, have a different form in the kernel, so ask it.
int FrozenInode::readXattr(const char *name, std::string *value) {
  const std::string_view wanted = name;
  const auto found =
      std::lower_bound(stored_.xattrs.begin(), stored_.xattrs.end(), wanted,
                       [](const XattrItem &one, std::string_view key) { return one.name < key; });
  if (found == stored_.xattrs.end() || found->name != wanted) return -ENODATA;
  if (!wanted.starts_with("user.") && !wanted.starts_with("trusted."))
    return BtrfsInode::readXattr(name, value);
  *value = found->value;
  return 0;
}

int FrozenInode::readProtection(Protection *protection) {
  *protection = protectionOfItem(stored_.item.flags);
  return 0;
}

int FrozenInode::readStorageFlags(unsigned *flags) {
  *flags = storageFlagsOfItem(stored_.item.mode, stored_.item.flags);
  return 0;
}

int FrozenInode::openLate() const {
  const bool regular = S_ISREG(stored_.item.mode);
  auto open = [&](int flags) {
    return openEvenNameless(tree_root_.fd.get(), tree_root_.subvol_id, facts_.ino,
                            static_cast<uint32_t>(stored_.item.generation), flags);
  };
  int fd = open(regular ? O_RDONLY | O_NONBLOCK | O_NOATIME : O_PATH);
  if (fd == -EPERM && regular) fd = open(O_RDONLY | O_NONBLOCK);
  if (fd == -EWOULDBLOCK && regular) {
    // Another process holds a lease on the file. Break it only when the data is needed.
    UniqueFd path(open(O_PATH));
    return path ? keepPath(std::move(path)) : path.get();
  }
  return fd < 0 ? fd : keep(UniqueFd(fd));
}

int openFrozenInode(const TreeRoot &root, TreeReader &tree, uint64_t ino,
                    std::unique_ptr<Inode> *inode) {
  StoredInode stored;
  if (int rc = readStored(tree, ino, &stored); rc < 0) return rc;
  *inode = std::make_unique<FrozenInode>(root, ino, std::move(stored));
  return 0;
}

int adoptFrozenInode(const TreeRoot &root, TreeReader &tree, uint64_t ino, UniqueFd fd,
                     std::unique_ptr<Inode> *inode) {
  StoredInode stored;
  if (int rc = readStored(tree, ino, &stored); rc < 0) return rc;
  *inode = std::make_unique<FrozenInode>(root, ino, std::move(stored), std::move(fd));
  return 0;
}

}  // namespace kest
