#include "libkest/posix_view.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include "btrfs/beneath.h"
#include "btrfs/fd_path.h"
#include "btrfs/inode_flags.h"
#include "btrfs/xattr.h"
#include "libkest/c_call.h"
#include "libkest/fileset_handle.h"
#include "libkest/open_inode.h"

namespace kest {
namespace {

constexpr ino_t kSubvolumeRootInode = 256;
constexpr char kCapability[] = "security.capability";
constexpr mode_t kModeBits = 07777;
constexpr int kCreateAttempts = 100;

// Remembers the file capability of an object over a step in which the kernel drops it.
class KeptCapability {
 public:
  explicit KeptCapability(int fd) : fd_(fd) {}

  int save() {
    int rc = readXattr(fd_, kCapability, &value_);
    if (rc == -ENODATA || rc == -EOPNOTSUPP) {
      value_.clear();
      return 0;
    }
    return rc;
  }

  int putBack() const {
    std::string now;
    if (value_.empty() || (readXattr(fd_, kCapability, &now) == 0 && now == value_)) return 0;
    return writeXattr(fd_, kCapability, value_);
  }

 private:
  int fd_;
  std::string value_;
};

// Users can rename what they own between the making of an object and this look at it.
int setModeOfNew(const Place &place, mode_t type, mode_t mode, dev_t device = 0) {
  UniqueFd fd;
  struct stat st;
  if (int rc = openObject(place, &fd, &st); rc != 0) return rc;
  const bool fresh = st.st_uid == geteuid() && st.st_nlink == 1 && st.st_size == 0;
  if ((st.st_mode & S_IFMT) != type || st.st_rdev != device || !fresh) return -ESTALE;
  return setExactMode(fd.get(), mode);
}

// Opening a device can do something, a FIFO wait: what is there is looked at first.
int openExisting(const Place &place, int flags, UniqueFd *fd) {
  UniqueFd found;
  struct stat st;
  if (int rc = openObject(place, &found, &st); rc != 0) return rc;
  if (S_ISLNK(st.st_mode)) return -ELOOP;
  if (S_ISDIR(st.st_mode)) return -EISDIR;
  if (!S_ISREG(st.st_mode)) return -EEXIST;
  fd->reset(open(FdPath(found.get()).get(), flags & ~O_NOFOLLOW));
  return *fd ? 0 : outcome(-1, {Suspect{found.get(), "", true}});
}

// open(2) for a caller that must know whether it made the file. O_CREAT alone would not tell.
int openOrCreate(const Place &place, int flags, mode_t mode, UniqueFd *fd, bool *created) {
  for (int attempt = 0; attempt < kCreateAttempts; attempt++) {
    *created = true;
    fd->reset(openat(place.dir.get(), place.leaf.c_str(), flags | O_CREAT | O_EXCL, mode));
    if (*fd) return 0;
    if (errno != EEXIST || (flags & O_EXCL)) return outcome(-1, {takingDirectory(place)});
    *created = false;
    const int rc = openExisting(place, flags & ~O_CREAT, fd);
    if (rc == 0) break;
    if (rc != -ENOENT) return rc;
  }
  return *fd ? 0 : -ENOENT;
}

int openFile(const Place &place, int flags, mode_t mode) {
  if (place.leaf.size() > 1 && place.leaf.back() == '/')
    return -EISDIR;  // only directories are named so
  UniqueFd fd;
  flags |= O_CLOEXEC | O_NOFOLLOW;
  if ((flags & O_CREAT) == 0) {
    fd.reset(openat(place.dir.get(), place.leaf.c_str(), flags, mode));
    return fd ? fd.release() : outcome(-1, {object(place), takingDirectory(place)});
  }
  bool created = false;
  if (int rc = openOrCreate(place, flags, mode, &fd, &created); rc != 0) return rc;
  if (created) {
    if (int rc = setExactMode(fd.get(), mode); rc != 0) return rc;
  }
  return fd.release();
}

int truncateFile(const Place &place, int64_t size, uint64_t ino) {
  UniqueFd object_fd;
  struct stat st;
  if (int rc = openObject(place, &object_fd, &st); rc != 0) return rc;
  if (ino != 0 && st.st_ino != ino) return -ESTALE;
  if (S_ISLNK(st.st_mode)) return -ELOOP;
  if (S_ISDIR(st.st_mode)) return -EISDIR;
  if (!S_ISREG(st.st_mode)) return -EINVAL;

  UniqueFd fd(open(FdPath(object_fd.get()).get(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd) return outcome(-1, {Suspect{object_fd.get(), "", true}});
  KeptCapability capability(fd.get());
  if (int rc = capability.save(); rc != 0) return rc;
  int rc;
  do {
    rc = ftruncate(fd.get(), size);
  } while (rc != 0 && errno == EINTR);
  rc = outcome(rc, {Suspect{object_fd.get(), "", true}});
  int kept = capability.putBack();  // it is gone even where the truncation failed
  return rc != 0 ? rc : kept;
}

int changeOwner(int fd, uint64_t uid, uint64_t gid) {
  constexpr uint64_t kLargestId = UINT32_MAX - 1;  // the value above means "leave it" to the kernel
  if (uid > kLargestId || gid > kLargestId) return -EINVAL;
  struct stat st;
  if (fstat(fd, &st) != 0) return -errno;
  if (st.st_uid == uid && st.st_gid == gid) return 0;

  KeptCapability capability(fd);
  if (S_ISREG(st.st_mode)) {
    if (int rc = capability.save(); rc != 0) return rc;
  }
  if (fchownat(fd, "", static_cast<uid_t>(uid), static_cast<gid_t>(gid), AT_EMPTY_PATH) != 0)
    return -errno;
  if (S_ISLNK(st.st_mode)) return 0;
  if (int rc = setExactMode(fd, st.st_mode); rc != 0) return rc;
  return capability.putBack();
}

int removeDirectory(const Place &place, uint64_t ino) {
  if (int rc = expectInode(place, ino); rc != 0) return rc;
  int nested = isNestedSubvolume(place);
  if (nested < 0) return nested;
  if (nested > 0) return -EPERM;  // the kernel would destroy an empty one
  return outcome(unlinkat(place.dir.get(), place.leaf.c_str(), AT_REMOVEDIR),
                 {object(place), givingDirectory(place)});
}

// Where the resolution of `path` starts, and what of it is left.
struct Start {
  int fd;
  std::string_view rest;
};

// The part of `path` behind the directory `dir`; false where it does not lie below that.
bool stripDirectory(std::string_view path, std::string_view dir, std::string_view *rest) {
  if (!path.starts_with(dir)) return false;
  *rest = path.substr(dir.size());
  if (!rest->empty() && rest->front() != '/' && !dir.ends_with('/')) return false;
  rest->remove_prefix(std::min(rest->find_first_not_of('/'), rest->size()));
  return true;
}

// 0 or -EXDEV.
int startOf(const kest_fssnap_handle &handle, std::string_view path, Start *start) {
  if (handle.anchor && stripDirectory(path, handle.anchor_path, &start->rest) && !start->rest.empty()) {
    start->fd = handle.anchor.get();
    return 0;
  }
  start->fd = handle.root.get();
  return stripDirectory(path, handle.path, &start->rest) ? 0 : -EXDEV;
}

// RESOLVE_NO_XDEV stops at mounts, but not at nested subvolumes.
int refuseOtherTree(int dir, const kest_fssnap_handle &handle) {
  struct stat st;
  if (fstat(dir, &st) != 0) return -errno;
  return st.st_dev == handle.device ? 0 : -EXDEV;
}

}  // namespace

int locate(kest_fssnap_handle *handle, const char *path, Place *place) {
  if (path == nullptr) return -EINVAL;
  if (*path == '\0') return -ENOENT;
  Start start{AT_FDCWD, path};
  if (handle != nullptr) {
    if (int rc = startOf(*handle, path, &start); rc != 0) return rc;
  }
  const std::string_view rest = start.rest;
  const size_t end = rest.find_last_not_of('/') + 1;
  const size_t slash = end == 0 ? std::string_view::npos : rest.rfind('/', end - 1);
  const size_t leaf = slash == std::string_view::npos ? 0 : slash + 1;
  // The directory itself has no last component here: the call then answers for ".".
  place->leaf = end == 0 ? "." : std::string(rest.substr(leaf));
  if (handle == nullptr) return openBeneath(start.fd, rest.substr(0, end == 0 ? 1 : leaf), &place->dir);
  if (rest.substr(leaf, end - leaf) == "..") return -EXDEV;
  if (int rc = openBeneath(start.fd, rest.substr(0, leaf), &place->dir); rc != 0) return rc;
  return refuseOtherTree(place->dir.get(), *handle);
}

int expectInode(const Place &place, uint64_t ino) {
  if (ino == 0) return 0;
  struct stat st;
  if (fstatat(place.dir.get(), place.leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return -errno;
  return st.st_ino == ino ? 0 : -ESTALE;
}

int outcome(int result, std::initializer_list<Suspect> suspects) {
  if (result == 0) return 0;
  int err = errno;
  if (err != EPERM) return -err;
  return std::any_of(suspects.begin(), suspects.end(), flagsForbid) ? -EROFS : -EPERM;
}

bool flagsForbid(const Suspect &suspect) {
  Protection protection;
  return readProtection(suspect.dir_fd, suspect.name, &protection) == 0 &&
         (protection.immutable || (protection.append_only && suspect.append_only_refuses));
}

int openObject(const Place &place, UniqueFd *fd, struct stat *st) {
  size_t end = place.leaf.find_last_not_of('/') + 1;
  // With a slash after its name the kernel would follow a link even so: a directory is asked for
  // instead.
  int directory = end < place.leaf.size() ? O_DIRECTORY : 0;
  fd->reset(openat(place.dir.get(), place.leaf.substr(0, end).c_str(),
                   O_PATH | O_NOFOLLOW | O_CLOEXEC | directory));
  return *fd && fstat(fd->get(), st) == 0 ? 0 : -errno;
}

int setExactMode(int fd, mode_t mode) {
  struct stat st;
  if (fstat(fd, &st) != 0) return -errno;
  if (((st.st_mode ^ mode) & kModeBits) == 0) return 0;
  return changeMode(fd, mode & kModeBits) == 0 ? 0 : -errno;
}

int isNestedSubvolume(const Place &place) {
  struct stat parent, st;
  if (fstatat(place.dir.get(), place.leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return -errno;
  if (!S_ISDIR(st.st_mode) || st.st_ino != kSubvolumeRootInode) return 0;
  if (fstat(place.dir.get(), &parent) != 0) return -errno;
  return st.st_dev != parent.st_dev;
}

}  // namespace kest

using namespace kest;

extern "C" int kest_rmdir(kest_fssnap_handle_t *active, const char *path, uint64_t ino) {
  return onPath(active, path, [=](const Place &place) { return removeDirectory(place, ino); });
}

extern "C" int kest_truncate(kest_fssnap_handle_t *active, const char *path, int64_t size,
                             uint64_t ino) {
  return onPath(active, path, [=](const Place &place) { return truncateFile(place, size, ino); });
}

extern "C" int kest_open_file(kest_fssnap_handle_t *active, const char *path, int flags, mode_t mode) {
  return onPath(active, path, [=](const Place &place) { return openFile(place, flags, mode); });
}

extern "C" int kest_mkdir(kest_fssnap_handle_t *active, const char *path, mode_t mode) {
  return onPath(active, path, [=](const Place &place) {
    int rc = outcome(mkdirat(place.dir.get(), place.leaf.c_str(), mode & kModeBits),
                     {takingDirectory(place)});
    return rc == 0 ? setModeOfNew(place, S_IFDIR, mode) : rc;
  });
}

extern "C" int kest_mknod(kest_fssnap_handle_t *active, const char *path, mode_t mode, dev_t device) {
  return onPath(active, path, [=](const Place &place) {
    int rc =
        outcome(mknodat(place.dir.get(), place.leaf.c_str(), mode, device), {takingDirectory(place)});
    mode_t type = (mode & S_IFMT) != 0 ? mode & S_IFMT : S_IFREG;
    return rc == 0 ? setModeOfNew(place, type, mode, S_ISCHR(type) || S_ISBLK(type) ? device : 0) : rc;
  });
}

extern "C" int kest_symlink(kest_fssnap_handle_t *active, const char *target, const char *path) {
  return onPath(active, path, [=](const Place &place) {
    if (target == nullptr) return -EINVAL;
    return outcome(symlinkat(target, place.dir.get(), place.leaf.c_str()), {takingDirectory(place)});
  });
}

extern "C" int kest_lchown(kest_fssnap_handle_t *active, const char *path, uint64_t uid, uint64_t gid) {
  return onPath(active, path, [=](const Place &place) {
    UniqueFd fd;
    struct stat st;
    int rc = openObject(place, &fd, &st);
    return rc == 0 ? changeOwner(fd.get(), uid, gid) : rc;
  });
}

extern "C" int kest_fchown(int fd, uint64_t uid, uint64_t gid) {
  return cCall([=] { return changeOwner(fd, uid, gid); });
}

extern "C" int kest_open_path(kest_fssnap_handle_t *handle, const char *path) {
  return onPath(handle, path, [](const Place &place) {
    UniqueFd fd;
    struct stat st;
    int rc = openObject(place, &fd, &st);
    return rc == 0 ? fd.release() : rc;
  });
}

extern "C" int kest_lstat(kest_fssnap_handle_t *handle, const char *path, struct stat *st) {
  return onPath(handle, path, [=](const Place &place) {
    if (st == nullptr) return -EINVAL;
    return fstatat(place.dir.get(), place.leaf.c_str(), st, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : -errno;
  });
}

extern "C" int kest_path_descriptor(const kest_ifile_t *file) {
  return cCall([=] {
    if (file == nullptr || file->if_kind != KEST_IFILE_KIND) return -EINVAL;
    int fd = fcntl(openInode(file)->anyFd(), F_DUPFD_CLOEXEC, 0);
    return fd >= 0 ? fd : -errno;
  });
}

extern "C" int kest_anchor(kest_fssnap_handle_t *active, const char *path, int fd) {
  return cCall([=] {
    if (active == nullptr || path == nullptr) return -EINVAL;
    UniqueFd anchor(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (!anchor) return -errno;
    if (int rc = refuseOtherTree(anchor.get(), *active); rc != 0) return rc;
    active->anchor = std::move(anchor);
    active->anchor_path = path;
    return 0;
  });
}
