#include "btrfs/inode.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <utility>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include "btrfs/attributes.h"
#include "btrfs/directory_listing.h"
#include "btrfs/file_handle.h"
#include "btrfs/inode_flags.h"
#include "btrfs/relatives.h"
#include "btrfs/tree_items.h"
#include "filesystem/blob_format.h"
#include "filesystem/clone_attribute.h"

namespace kest {

namespace {

kest_timestruc64_t toTime(const statx_timestamp &time) {
  return {time.tv_sec, time.tv_nsec};
}

// 0 or -errno.
int statNow(int fd, struct statx *status) {
  constexpr unsigned kMask = STATX_BASIC_STATS | STATX_BTIME;
  return statx(fd, "", AT_EMPTY_PATH, kMask, status) < 0 ? -errno : 0;
}

void fillAttributes(const struct statx &status, const InodeFacts &facts, kest_iattr64_t *attr) {
  *attr = {};
  attr->ia_inode = facts.ino;
  attr->ia_generation = facts.generation;
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
}

bool sameProperty(const BlobAttributes &a, const BlobAttributes &b) {
  const auto one = a.xattrs.find(kCompressionProperty), other = b.xattrs.find(kCompressionProperty);
  if (one == a.xattrs.end() || other == b.xattrs.end())
    return one == a.xattrs.end() && other == b.xattrs.end();
  return one->second == other->second;
}

// Returns -EBUSY while a process has the file open for writing, because it could still write to it
// later.
int refuseWriters(int fd) {
  // The kernel grants a read lease only on a file that no process has open for writing. If one opens it
  // for writing before the lease is returned, this process gets SIGURG, which is ignored by default.
  if (fcntl(fd, F_SETSIG, SIGURG) != 0) return 0;
  if (fcntl(fd, F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN ? -EBUSY : 0;
  fcntl(fd, F_SETLEASE, F_UNLCK);
  return 0;
}

}  // namespace

void BtrfsInode::learn(const struct stat &st) {
  facts_.ino = st.st_ino;
  facts_.mode = st.st_mode;
  facts_.size = static_cast<uint64_t>(st.st_size);
}

int BtrfsInode::learnStatus() {
  struct statx status;
  if (int rc = statNow(fd(), &status); rc < 0) return rc;
  if (status.stx_nlink == 0) return -ENOENT;
  facts_.ino = status.stx_ino;
  facts_.size = status.stx_size;
  facts_.mode = status.stx_mode;
  facts_.created = toTime(status.stx_btime);
  status_at_open_ = status;
  return 0;
}

int BtrfsInode::learnAll() {
  if (int rc = learnStatus(); rc < 0) return rc;
  InodeAddress address;
  if (int rc = addressOf(fd(), "", &address); rc < 0) return rc;
  if (address.subvol_id != root_->subvol_id) return -EXDEV;
  facts_.ino = address.ino;
  facts_.generation = address.generation;
  return 0;
}

int BtrfsInode::learnSame(const InodeFacts &other) {
  if (int rc = learnStatus(); rc < 0) return rc;
  // Two writable relatives can give one number, even with equal generations, to different files.
  if (((facts_.mode ^ other.mode) & S_IFMT) != 0 || facts_.created.tv_sec != other.created.tv_sec ||
      facts_.created.tv_nsec != other.created.tv_nsec)
    return -ENOENT;
  facts_.generation = other.generation;
  return 0;
}

int BtrfsInode::listEntries(EntryList *entries) {
  const uint64_t snapshot = root_->isSnapshot() ? root_->subvol_id : currentSnapshot(*root_);
  return listDirectory(*root_, *this, HiddenEntries(*root_, snapshot), true, entries);
}

int BtrfsInode::readAttributes(kest_iattr64_t *attr) {
  struct statx status;
  const int any = anyFd();
  if (any < 0) return any;
  if (int rc = statNow(any, &status); rc < 0) return rc;
  fillAttributes(status, facts_, attr);
  return carriesBlob(status.stx_mode, &attr->ia_xattr);
}

int BtrfsInode::readFacts(kest_facts_t *facts) {
  const bool has_flags = S_ISREG(facts_.mode) || S_ISDIR(facts_.mode);
  // Read the flags first: that opens a descriptor on which the other two calls are cheaper.
  unsigned flags = 0;
  if (has_flags) {
    const int fd = readFd();
    if (fd < 0) return fd;
    if (int rc = readAllFlags(fd, &flags); rc < 0) return rc;
  }
  struct statx status;
  if (status_at_open_) {
    status = *std::exchange(status_at_open_, std::nullopt);
  } else {
    const int any = anyFd();
    if (any < 0) return any;
    if (int rc = statNow(any, &status); rc < 0) return rc;
  }
  std::vector<std::string> names;
  if (int rc = listXattrs(&names); rc < 0) return rc;
  *facts = {};
  fillAttributes(status, facts_, &facts->attr);
  facts->protection = protectionBits(flags);
  if ((flags & kStorageFlags) != 0) facts->has |= KEST_HAS_BLOB;
  for (const std::string &name : names)
    facts->has |= factOfXattr(name) | (travelsInBlob(name) ? KEST_HAS_BLOB : 0);
  facts->attr.ia_xattr = (facts->has & KEST_HAS_BLOB) != 0 ? 1 : 0;
  return 0;
}

// The answer for an inode of a snapshot is kept, because it cannot change.
int BtrfsInode::carriesBlob(mode_t mode, uint32_t *answer) {
  if (!carries_blob_ || !root_->isSnapshot()) {
    unsigned flags = 0;
    if (S_ISREG(mode) || S_ISDIR(mode)) {
      if (int rc = readStorageFlags(&flags); rc < 0) return rc;
    }
    std::vector<std::string> names;
    if (int rc = listXattrs(&names); rc < 0) return rc;
    carries_blob_ = flags != 0 || std::any_of(names.begin(), names.end(), travelsInBlob);
  }
  *answer = *carries_blob_ ? 1 : 0;
  return 0;
}

// The kernel lists at most 64 KiB of names, so read more from the tree.
int BtrfsInode::listXattrs(std::vector<std::string> *names) {
  int rc = DescriptorInode::listXattrs(names);
  if (rc != -E2BIG || root_ == nullptr) return rc;
  TreeReader tree(root_->fd.get(), root_->subvol_id);
  std::vector<XattrItem> items;
  rc = readXattrs(tree, facts_.ino, &items);
  if (rc <= 0) return rc == 0 ? -ENOENT : rc;
  for (XattrItem &item : items) names->push_back(std::move(item.name));
  return 0;
}

int BtrfsInode::readStorageFlags(unsigned *flags) {
  const int fd = readFd();
  return fd < 0 ? fd : kest::readStorageFlags(fd, flags);
}

int BtrfsInode::limitStorage(const BlobAttributes &now, BlobAttributes *wanted) {
  if (S_ISREG(facts_.mode)) {
    struct stat st;
    if (int rc = stat(&st); rc != 0) return rc;
    if (st.st_size > 0) {
      // Only an empty file can gain or lose no-copy-on-write.
      const unsigned fixed = now.flags & FS_NOCOW_FL;
      wanted->flags = (wanted->flags & ~FS_NOCOW_FL) | fixed;
      // Next to it the no-compression flag can be cleared but not set.
      if (fixed != 0) wanted->flags &= now.flags;
    }
  }
  if (wanted->flags & FS_NOCOW_FL) {
    wanted->flags &= ~FS_COMPR_FL;
    wanted->xattrs.erase(kCompressionProperty);
  } else if ((wanted->flags & FS_COMPR_FL) && now.xattrs.contains(kCompressionProperty)) {
    // The kernel sets the compression flag only together with the property, so keep the property.
    wanted->xattrs.emplace(kCompressionProperty, now.xattrs.find(kCompressionProperty)->second);
    wanted->flags &= ~FS_COMPR_FL;
  }
  return 0;
}

// The kernel changes storage flags and compression property together, so their order matters.
int BtrfsInode::applyStorage(const BlobAttributes &now, const BlobAttributes &wanted) {
  if (now.flags == wanted.flags && sameProperty(now, wanted)) return 0;
  const auto property = wanted.xattrs.find(kCompressionProperty);
  const bool wants_property = property != wanted.xattrs.end();
  if (now.xattrs.contains(kCompressionProperty) && !wants_property) {
    // This must come first: on an immutable object the kernel refuses it, but not the change of flags
    // below.
    if (int rc = removeXattr(kCompressionProperty); rc != 0) return rc;
  }
  if (now.flags != wanted.flags) {
    const int fd = readFd();
    if (fd < 0) return fd;
    // The kernel refuses most direct changes from one combination of flags to another, but none through
    // no flag at all. (On a file with data it keeps no-copy-on-write, whatever the request says.)
    if (int rc = writeStorageFlags(fd, 0); rc != 0) return rc;
    if (wanted.flags != 0) {
      if (int rc = writeStorageFlags(fd, wanted.flags); rc != 0) return rc;
    }
  }
  return wants_property ? writeXattr(kCompressionProperty, property->second) : 0;
}

int BtrfsInode::share(Inode &from, int64_t offset, int64_t length) {
  const int source = asBtrfs(from).readFd();
  if (source < 0) return source;
  const int target = writeFd();
  if (target < 0) return target;
  struct file_clone_range range {};
  range.src_fd = source;
  range.src_offset = range.dest_offset = static_cast<uint64_t>(offset);
  range.src_length = static_cast<uint64_t>(length);
  int rc;
  do {
    rc = ioctl(target, FICLONERANGE, &range) == 0 ? 0 : -errno;
  } while (rc == -EINTR);
  switch (rc) {
    // The caller copies after EINVAL.
    case -EXDEV:
    case -EOPNOTSUPP:
      return -EINVAL;
    case -EPERM:  // the flag was set after the open
      return -EROFS;
    default:
      return rc;
  }
}

int BtrfsInode::makeCloneParent() {
  if (!S_ISREG(facts().mode)) return -EINVAL;
  Protection protection;
  if (int rc = readProtection(&protection); rc != 0) return rc;
  if (protection.any()) return -EROFS;
  if (int rc = giveUpWriting(); rc != 0) return rc;
  const int fd = readFd();
  if (fd < 0) return fd;
  if (int rc = refuseWriters(fd); rc != 0) return rc;

  CloneAttribute attribute;
  if (int rc = readCloneAttribute(*this, &attribute); rc < 0) return rc;
  // Write the attribute first, because it cannot be set on an immutable file. If the process dies in
  // between, the next call completes the parent.
  if (!attribute.isParent()) {
    attribute.setIsParent();
    const int rc = writeCloneAttribute(*this, attribute);
    // Another process may have made it a clone parent meanwhile.
    if (rc == -EPERM && readProtection(&protection) == 0 && protection.any()) return -EROFS;
    if (rc != 0) return rc;
  }
  return writeProtection({.immutable = true, .append_only = false});
}

int openInode(const TreeRoot &root, uint64_t ino, std::unique_ptr<Inode> *inode) {
  UniqueFd fd(openEvenNameless(root.fd.get(), root.subvol_id, ino, 0, O_PATH));
  if (!fd) return fd.get();
  auto opened = std::make_unique<BtrfsInode>(std::move(fd), DescriptorInode::Held::kPath, &root);
  const int rc = opened->learnAll();
  if (rc == 0) *inode = std::move(opened);
  return rc;
}

int openSameInode(const TreeRoot &root, const Inode &other, std::unique_ptr<Inode> *inode) {
  const InodeFacts &theirs = other.facts();
  const bool regular = S_ISREG(theirs.mode);
  auto open = [&](int flags) {
    return openEvenNameless(root.fd.get(), root.subvol_id, theirs.ino,
                            static_cast<uint32_t>(theirs.generation), flags);
  };
  DescriptorInode::Held held = regular ? DescriptorInode::Held::kForBoth : DescriptorInode::Held::kPath;
  int fd = open(regular ? O_RDWR | O_NONBLOCK | O_NOATIME : O_PATH);
  if (regular && (fd == -EPERM || fd == -EROFS || fd == -ETXTBSY)) {
    held = DescriptorInode::Held::kForReading;
    fd = open(O_RDONLY | O_NONBLOCK | O_NOATIME);
    if (fd == -EPERM) fd = open(O_RDONLY | O_NONBLOCK);
  }
  // Another process holds a lease on the file. Break it only when the data is needed.
  if (regular && fd == -EWOULDBLOCK) {
    held = DescriptorInode::Held::kPath;
    fd = open(O_PATH);
  }
  if (fd < 0) return fd;
  auto opened = std::make_unique<BtrfsInode>(UniqueFd(fd), held, &root);
  const int rc = opened->learnSame(theirs);
  if (rc == 0) *inode = std::move(opened);
  return rc;
}

}  // namespace kest
