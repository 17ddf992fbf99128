#include "cephfs/inode.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "cephfs/descriptor.h"
#include "cephfs/file_objects.h"
#include "cephfs/names.h"
#include "cephfs/run_lock.h"
#include "filesystem/blob_format.h"
#include "filesystem/clone_attribute.h"
#include "filesystem/entry_list.h"

namespace kest {

namespace {

constexpr int64_t kPiece = 16 << 20;  // bytes of one call
constexpr mode_t kModeBits = 07777;
constexpr char kCapability[] = "security.capability";
constexpr const char *kAcls[] = {"system.posix_acl_access", "system.posix_acl_default"};

kest_timestruc64_t toTime(const struct timespec &time) {
  return {time.tv_sec, static_cast<uint32_t>(time.tv_nsec)};
}

// See ia_rdev in kest.h.
uint32_t packDevice(dev_t device) {
  const unsigned above = (major(device) & 0xfff) | (minor(device) >> 8 & 0xf) << 12;
  return above << 16 | (minor(device) & 0xff);
}

const char *layoutName(mode_t mode) {
  return S_ISDIR(mode) ? kDirLayout : kFileLayout;
}

// Reads the layout attribute; "" if the inode has the default layout or none of its own.
int readOwnLayout(const InodeRef &inode, const CephRoot &root, mode_t mode, std::string *value) {
  value->clear();
  if (!S_ISREG(mode) && !S_ISDIR(mode)) return 0;
  const int rc = S_ISREG(mode) ? readLayoutText(inode, value)
                               : inode.client()->readXattr(inode, kDirLayout, value);
  if (rc == -ENODATA || (rc == 0 && S_ISREG(mode) && *value == root.default_layout)) value->clear();
  return rc == -ENODATA ? 0 : rc;
}

int readNames(const InodeRef &inode, const CephRoot &root, mode_t mode,
              std::vector<std::string> *names) {
  if (int rc = inode.client()->listXattrs(inode, names); rc < 0) return rc;
  std::string layout;
  if (int rc = readOwnLayout(inode, root, mode, &layout); rc < 0) return rc;
  if (!layout.empty()) names->push_back(layoutName(mode));
  return 0;
}

}  // namespace

int fillAttributes(const InodeRef &inode, const CephRoot &root, const CephStat &st,
                   kest_iattr64_t *attr) {
  *attr = {};
  attr->ia_inode = st.stx_ino;
  attr->ia_mode = st.stx_mode;
  attr->ia_nlink = st.stx_nlink;
  attr->ia_size = static_cast<int64_t>(st.stx_size);
  attr->ia_uid = st.stx_uid;
  attr->ia_gid = st.stx_gid;
  attr->ia_rdev = packDevice(st.stx_rdev);
  attr->ia_atime = toTime(st.stx_atime);
  attr->ia_mtime = toTime(st.stx_mtime);
  attr->ia_ctime = toTime(st.stx_ctime);
  attr->ia_createtime = toTime(st.stx_btime);
  std::vector<std::string> names;
  const int rc = readNames(inode, root, st.stx_mode, &names);
  attr->ia_xattr = std::any_of(names.begin(), names.end(), travelsInBlob) ? 1 : 0;
  return rc;
}

CephInode::CephInode(std::shared_ptr<const CephRoot> root, InodeRef inode, const CephStat &st,
                     const std::string *path, bool linked)
    : root_(std::move(root)), inode_(std::move(inode)), linked_(linked), status_(st) {
  if (path != nullptr) path_ = std::make_unique<std::string>(*path);
  facts_.ino = st.stx_ino;
  facts_.size = st.stx_size;
  facts_.mode = st.stx_mode;
  facts_.created = toTime(st.stx_btime);
}

CephInode::~CephInode() {
  if (read_ != nullptr) ceph_ll_close(mount(), read_);
  if (write_ != nullptr) inode_.client()->closeWritten(write_);
}

int CephInode::now(CephStat *st) {
  if (root_->isSnapshot()) {
    *st = status_;
    return 0;
  }
  return inode_.client()->readStat(inode_, st);
}

int CephInode::flush() {
  if (!dirty_) return 0;
  const int rc = write_ != nullptr ? ceph_ll_fsync(mount(), write_, 1)
                                   : ceph_ll_sync_inode(mount(), inode_.get(), 1);
  if (rc == 0) dirty_ = false;
  return rc;
}

// See CephClient::byNumber.
int CephInode::linkUp() {
  if (linked_ || !root_->isSnapshot()) return 0;
  InodeRef found;
  CephStat st;
  const int rc = findInSnapshot(*root_, facts_.ino, &found, &st);
  if (rc < 0) return rc;
  inode_ = std::move(found);
  linked_ = true;
  return 0;
}

int CephInode::openForReading() {
  if (S_ISDIR(facts_.mode) || read_ != nullptr || write_ != nullptr) return 0;
  if (!S_ISREG(facts_.mode)) return -EINVAL;
  if (int rc = linkUp(); rc < 0) return rc;
  return ceph_ll_open(mount(), inode_.get(), O_RDONLY, &read_, perms());
}

int CephInode::openForWriting() {
  if (write_ != nullptr) return 0;
  if (!S_ISREG(facts_.mode)) return -EINVAL;
  if (root_->isSnapshot()) return -EROFS;
  return ceph_ll_open(mount(), inode_.get(), O_RDWR, &write_, perms());
}

int64_t CephInode::read(void *buf, int64_t size, int64_t offset) {
  if (int rc = openForReading(); rc < 0) return rc;
  if (S_ISDIR(facts_.mode)) return -EISDIR;
  ::Fh *file = write_ != nullptr ? write_ : read_;
  int64_t done = 0;
  while (done < size) {
    const auto want = static_cast<uint64_t>(std::min(size - done, kPiece));
    const int n = ceph_ll_read(mount(), file, offset + done, want, static_cast<char *>(buf) + done);
    if (n < 0) return done > 0 ? done : n;
    if (n == 0) break;
    done += n;
  }
  return done;
}

int64_t CephInode::write(const void *buf, int64_t size, int64_t offset, int *error) {
  if (int rc = openForWriting(); rc < 0) return rc;
  int64_t done = 0;
  while (done < size) {
    const auto want = static_cast<uint64_t>(std::min(size - done, kPiece));
    const int n =
        ceph_ll_write(mount(), write_, offset + done, want, static_cast<const char *>(buf) + done);
    if (n <= 0) {
      *error = n < 0 ? -n : ENOSPC;
      break;
    }
    dirty_ = true;
    done += n;
  }
  return done;
}

int CephInode::makeHole(int64_t offset, int64_t end) {
  if (int rc = openForWriting(); rc < 0) return rc;
  CephStat st;
  if (int rc = now(&st); rc < 0) return rc;
  const auto size = static_cast<int64_t>(st.stx_size);
  for (int64_t at = offset, last = std::min(end, size); at < last;) {
    int64_t stop;
    bool hole;
    if (int rc = stretchAt(at, last, &stop, &hole); rc < 0) return rc;
    if (!hole) {
      const int rc =
          ceph_ll_fallocate(mount(), write_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, at, stop - at);
      if (rc < 0) return rc;
      dirty_ = true;
    }
    at = stop;
  }
  return end > size ? truncate(end) : 0;
}

int CephInode::truncate(int64_t size) {
  if (!S_ISREG(facts_.mode)) return -EINVAL;
  CephStat st{};
  st.stx_size = static_cast<uint64_t>(size);
  return change(&st, CEPH_SETATTR_SIZE);
}

int CephInode::stretchAt(int64_t offset, int64_t end, int64_t *stop, bool *hole) {
  if (!S_ISREG(facts_.mode)) return -EINVAL;
  if (int rc = linkUp(); rc < 0) return rc;
  if (int rc = flush(); rc < 0) return rc;
  if (layout_.object_size == 0) {
    if (int rc = readLayout(inode_, &layout_); rc < 0) return rc;
  }
  uint64_t where;
  const int rc =
      stretchOfObjects(layout_, inode_, facts_.ino, root_->snapid, static_cast<uint64_t>(offset),
                       static_cast<uint64_t>(end), &where, hole);
  *stop = static_cast<int64_t>(where);
  return rc;
}

int CephInode::readLink(std::string *target) {
  if (int rc = linkUp(); rc < 0) return rc;
  char buffer[PATH_MAX];
  const int length = ceph_ll_readlink(mount(), inode_.get(), buffer, sizeof buffer, perms());
  if (length < 0) return length;
  target->assign(buffer, static_cast<size_t>(length));
  return 0;
}

int CephInode::listEntries(EntryList *entries) {
  std::vector<CephEntry> found;
  if (int rc = linkUp(); rc < 0) return rc;
  if (int rc = inode_.client()->list(inode_, &found); rc < 0) return rc;
  leaveOutLockFile(*root_, facts_.ino, &found);
  entries->clear();
  for (const char *dots : {".", ".."}) entries->add(toRecord({dots, facts_.ino, false, DT_DIR}));
  for (const CephEntry &one : found)
    entries->add(
        toRecord({one.name, one.st.stx_ino, false, static_cast<uint8_t>(IFTODT(one.st.stx_mode))}));
  return 0;
}

int CephInode::stat(struct stat *st) {
  CephStat status;
  if (int rc = now(&status); rc < 0) return rc;
  toStat(status, root_->device, st);
  return 0;
}

int CephInode::readAttributes(kest_iattr64_t *attr) {
  CephStat status;
  if (int rc = now(&status); rc < 0) return rc;
  if (int rc = linkUp(); rc < 0) return rc;
  return fillAttributes(inode_, *root_, status, attr);
}

int CephInode::readFacts(kest_facts_t *facts) {
  *facts = {};
  CephStat status;
  if (int rc = now(&status); rc < 0) return rc;
  if (int rc = linkUp(); rc < 0) return rc;
  if (int rc = fillAttributes(inode_, *root_, status, &facts->attr); rc < 0) return rc;
  if (facts->attr.ia_xattr != 0) facts->has |= KEST_HAS_BLOB;
  std::vector<std::string> names;
  if (int rc = inode_.client()->listXattrs(inode_, &names); rc < 0) return rc;
  for (const std::string &name : names) {
    if (name == kCapability) facts->has |= KEST_HAS_CAPABILITY;
    if (name == kCloneAttribute) facts->has |= KEST_HAS_CLONE;
  }
  if (S_ISLNK(status.stx_mode)) return 0;
  for (const char *acl : kAcls) {
    std::string value;
    const int rc = readXattr(acl, &value);
    if (rc == 0 && !value.empty()) facts->has |= KEST_HAS_ACL;
    if (rc < 0 && rc != -ENODATA && rc != -EOPNOTSUPP) return rc;
  }
  return 0;
}

int CephInode::change(CephStat *st, int mask) {
  if (root_->isSnapshot()) return -EROFS;
  return ceph_ll_setattr(mount(), inode_.get(), st, mask, perms());
}

int CephInode::changeMode(mode_t mode) {
  CephStat st{};
  st.stx_mode = static_cast<uint16_t>(mode & kModeBits);
  return change(&st, CEPH_SETATTR_MODE);
}

int CephInode::changeOwner(uid_t uid, gid_t gid) {
  CephStat st{};
  st.stx_uid = uid;
  st.stx_gid = gid;
  return change(&st, CEPH_SETATTR_UID | CEPH_SETATTR_GID);
}

int CephInode::setTimes(const struct timespec times[2]) {
  CephStat st{};
  int mask = 0;
  if (times[0].tv_nsec != UTIME_OMIT) {
    st.stx_atime = times[0];
    mask |= CEPH_SETATTR_ATIME;
  }
  if (times[1].tv_nsec != UTIME_OMIT) {
    st.stx_mtime = times[1];
    mask |= CEPH_SETATTR_MTIME;
    // Write data back first: if it were written later, that would change the time again.
    if (int rc = flush(); rc < 0) return rc;
  }
  return mask == 0 ? 0 : change(&st, mask);
}

int CephInode::listXattrs(std::vector<std::string> *names) {
  if (int rc = linkUp(); rc < 0) return rc;
  return readNames(inode_, *root_, facts_.mode, names);
}

int CephInode::readXattr(const char *name, std::string *value) {
  if (int rc = linkUp(); rc < 0) return rc;
  return inode_.client()->readXattr(inode_, name, value);
}

int CephInode::writeXattr(const char *name, const std::string &value) {
  if (root_->isSnapshot()) return -EROFS;
  layout_ = {};
  return ceph_ll_setxattr(mount(), inode_.get(), name, value.data(), value.size(), 0, perms());
}

int CephInode::removeXattr(const char *name) {
  if (root_->isSnapshot()) return -EROFS;
  // A file always has a layout, so instead of removing it, set the default one.
  if (strcmp(name, kFileLayout) == 0) return writeXattr(name, root_->default_layout);
  const int rc = ceph_ll_removexattr(mount(), inode_.get(), name, perms());
  return rc == -ENODATA ? 0 : rc;
}

int CephInode::readProtection(Protection *protection) {
  *protection = {};
  return 0;
}

int CephInode::writeProtection(Protection protection) {
  return protection.any() ? -ENOTSUP : 0;
}

int CephInode::writeFlags(uint32_t flags) {
  return flags != 0 ? -ENOTSUP : 0;
}

int CephInode::readStorageFlags(unsigned *flags) {
  *flags = 0;
  return 0;
}

// The layout of a file can be set as long as it has no data.
int CephInode::limitStorage(const BlobAttributes &now, BlobAttributes *wanted) {
  wanted->flags = 0;
  wanted->xattrs.erase(kCompressionProperty);
  if (!S_ISREG(facts_.mode)) return 0;
  struct stat st;
  if (int rc = stat(&st); rc < 0) return rc;
  if (st.st_size == 0) return 0;
  wanted->xattrs.erase(kFileLayout);
  const auto kept = now.xattrs.find(kFileLayout);
  if (kept != now.xattrs.end()) wanted->xattrs.insert(*kept);
  return 0;
}

int CephInode::applyStorage(const BlobAttributes &, const BlobAttributes &) {
  return 0;
}

int CephInode::share(Inode &, int64_t, int64_t) {
  return -EINVAL;
}

int CephInode::makeCloneParent() {
  return -ENOTSUP;
}

int CephInode::duplicateDescriptor() {
  return openDescriptor(*root_, facts_.ino, path_.get());
}

int CephInode::takeDescriptor() {
  return duplicateDescriptor();
}

}  // namespace kest
