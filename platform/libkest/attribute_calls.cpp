// Owner, mode, ACLs, times and single attributes of an object that is given by path, descriptor or open
// inode.
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

#include "base/unique_fd.h"
#include "detect/file_systems.h"
#include "kest.h"
#include "libkest/acl_format.h"
#include "libkest/c_call.h"
#include "libkest/kept_attributes.h"
#include "libkest/open_file.h"

namespace kest {
namespace {

constexpr char kAccess[] = "system.posix_acl_access";
constexpr char kCapability[] = "security.capability";
constexpr char kDefault[] = "system.posix_acl_default";
constexpr mode_t kModeBits = 07777;

// Reads an ACL attribute; "" if the object has none. 0 or -errno.
int readAclXattr(Inode &inode, const char *name, std::string *value) {
  const int rc = inode.readXattr(name, value);
  if (rc != -ENODATA && rc != -EOPNOTSUPP) return rc;
  value->clear();
  return 0;
}

int applyAclXattr(Inode &inode, const char *name, const std::string &wanted) {
  std::string now;
  if (int rc = readAclXattr(inode, name, &now); rc != 0) return rc;
  if (now == wanted) return 0;
  return wanted.empty() ? inode.removeXattr(name) : inode.writeXattr(name, wanted);
}

// Reads the state of the object; for a symbolic link only the mode. 0 or -errno.
int readAcl(Inode &inode, AclState *state) {
  struct stat st;
  if (int rc = inode.stat(&st); rc != 0) return rc;
  state->mode = st.st_mode & kModeBits;
  if (S_ISLNK(st.st_mode)) return 0;
  if (int rc = readAclXattr(inode, kAccess, &state->access); rc != 0) return rc;
  return S_ISDIR(st.st_mode) ? readAclXattr(inode, kDefault, &state->inherited) : 0;
}

// Sets the state of the object and writes nothing that is equal already. Does nothing for a symbolic
// link. 0 or -errno.
int writeAcl(Inode &inode, const AclState &state) {
  struct stat st;
  if (int rc = inode.stat(&st); rc != 0) return rc;
  if (S_ISLNK(st.st_mode)) return 0;
  if (int rc = applyAclXattr(inode, kAccess, state.access); rc != 0) return rc;
  if (S_ISDIR(st.st_mode)) {
    if (int rc = applyAclXattr(inode, kDefault, state.inherited); rc != 0) return rc;
  }
  // This must come last, because setting an access ACL changes the permission bits.
  return inode.setExactMode(state.mode);
}

int readAclBuffer(Inode &inode, int flags, void *buf) {
  if (buf == nullptr || flags != 0) return -EINVAL;
  int32_t capacity;
  memcpy(&capacity, buf, sizeof capacity);
  AclState state;
  if (int rc = readAcl(inode, &state); rc != 0) return rc;
  const std::string text = encodeAcl(state);
  const auto needed = static_cast<int32_t>(text.size());
  const bool fits = capacity >= needed;
  memcpy(buf, text.data(), fits ? text.size() : sizeof needed);
  return fits ? 0 : -ENOSPC;
}

int writeAclBuffer(Inode &inode, int flags, const void *buf) {
  AclState state;
  if (buf == nullptr || flags != 0 || !decodeAcl(buf, &state)) return -EINVAL;
  return writeAcl(inode, state);
}

int openPath(const char *path, UniqueFd *fd) {
  if (path == nullptr) return -EINVAL;
  fd->reset(open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  return *fd ? 0 : -errno;
}

// The kernel takes some nanosecond values as UTIME_NOW and UTIME_OMIT, so refuse counts that are too
// large.
int convert(const kest_timestruc64_t &from, struct timespec *to) {
  if (from.tv_nsec > 999999999u) return -EINVAL;
  to->tv_sec = from.tv_sec;
  to->tv_nsec = static_cast<long>(from.tv_nsec);
  return 0;
}

int convertTimes(int flags, const kest_timestruc64_t times[4], struct timespec stamps[2]) {
  if (times == nullptr) return -EINVAL;
  stamps[0] = stamps[1] = {0, UTIME_OMIT};
  int rc = 0;
  if (flags & KEST_ACCESS_TIME) rc = convert(times[0], &stamps[0]);
  if (rc == 0 && (flags & KEST_MODIFICATION_TIME)) rc = convert(times[1], &stamps[1]);
  return rc;
}

// `capability` is that of the inode, read or not.
int changeOwner(Inode &inode, uint64_t uid, uint64_t gid, KeptCapability *capability) {
  constexpr uint64_t kLargestId = UINT32_MAX - 1;  // the next value means "keep" to the kernel
  if (uid > kLargestId || gid > kLargestId) return -EINVAL;
  struct stat st;
  if (int rc = inode.stat(&st); rc != 0) return rc;
  if (st.st_uid == uid && st.st_gid == gid) return 0;

  if (S_ISREG(st.st_mode)) {
    if (int rc = capability->save(inode); rc != 0) return rc;
  }
  if (int rc = inode.changeOwner(static_cast<uid_t>(uid), static_cast<gid_t>(gid)); rc != 0) return rc;
  if (S_ISLNK(st.st_mode)) return 0;
  if (int rc = inode.setExactMode(st.st_mode); rc != 0) return rc;
  return capability->putBackIfLost(inode);
}

int64_t readOneXattr(Inode &inode, const char *name, void *buf, size_t size) {
  std::string value;
  if (int rc = inode.readXattr(name, &value); rc != 0) return rc;
  if (value.size() > size) return -ERANGE;
  value.copy(static_cast<char *>(buf), size);
  return static_cast<int64_t>(value.size());
}

// Runs `body`(open file) and returns its result in the form of the C interface.
template <typename Body>
auto onInode(const kest_ifile_t *file, Body body) {
  return cCall([&]() -> decltype(body(*openFile(file))) {
    OpenFile *open = openFile(file);
    if (open == nullptr) return -EINVAL;
    return body(*open);
  });
}

}  // namespace
}  // namespace kest

using namespace kest;

extern "C" {

int kest_getacl(const char *path, int flags, void *buf) {
  return cCall([&] {
    UniqueFd fd;
    int rc = openPath(path, &fd);
    return rc == 0 ? readAclBuffer(*inodeBehind(fd.get()), flags, buf) : rc;
  });
}

int kest_putacl(const char *path, int flags, const void *buf) {
  return cCall([&] {
    UniqueFd fd;
    int rc = openPath(path, &fd);
    return rc == 0 ? writeAclBuffer(*inodeBehind(fd.get()), flags, buf) : rc;
  });
}

int kest_set_times_path(const char *path, int flags, const kest_timestruc64_t times[4]) {
  return cCall([&] {
    if (path == nullptr) return -EINVAL;
    if (*path == '\0') return -ENOENT;
    struct timespec stamps[2];
    if (int rc = convertTimes(flags, times, stamps); rc != 0) return rc;
    return utimensat(AT_FDCWD, path, stamps, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : -errno;
  });
}

int kest_fset_times(int fd, int flags, const kest_timestruc64_t times[4]) {
  return cCall([&] {
    struct timespec stamps[2];
    int rc = convertTimes(flags, times, stamps);
    return rc == 0 ? inodeBehind(fd)->setTimes(stamps) : rc;
  });
}

int kest_ichown(kest_ifile_t *file, uint64_t uid, uint64_t gid) {
  return onInode(file,
                 [=](OpenFile &open) { return changeOwner(*open.inode, uid, gid, &open.capability); });
}

int kest_ichmod(kest_ifile_t *file, mode_t mode) {
  return onInode(file, [=](OpenFile &open) { return open.inode->changeMode(mode & kModeBits); });
}

int kest_iset_times(kest_ifile_t *file, int flags, const kest_timestruc64_t times[4]) {
  return onInode(file, [=](OpenFile &open) {
    struct timespec stamps[2];
    int rc = convertTimes(flags, times, stamps);
    return rc == 0 ? open.inode->setTimes(stamps) : rc;
  });
}

int kest_igetacl(kest_ifile_t *file, int flags, void *buf) {
  return onInode(file, [=](OpenFile &open) { return readAclBuffer(*open.inode, flags, buf); });
}

int kest_iputacl(kest_ifile_t *file, int flags, const void *buf) {
  return onInode(file, [=](OpenFile &open) { return writeAclBuffer(*open.inode, flags, buf); });
}

int kest_iset_protection(kest_ifile_t *file, uint32_t protection) {
  return onInode(file, [=](OpenFile &open) {
    // Other types have no flags, and a flags request on a device would reach its driver.
    if (!S_ISREG(open.if_mode) && !S_ISDIR(open.if_mode)) return 0;
    return open.inode->writeFlags(protection);
  });
}

int64_t kest_igetxattr(const kest_ifile_t *file, const char *name, void *buf, size_t size) {
  return onInode(file, [=](OpenFile &open) -> int64_t {
    if (name == nullptr || (buf == nullptr && size != 0)) return -EINVAL;
    return readOneXattr(*open.inode, name, buf, size);
  });
}

int kest_isetxattr(kest_ifile_t *file, const char *name, const void *value, size_t size) {
  return onInode(file, [=](OpenFile &open) {
    if (name == nullptr || (value == nullptr && size != 0)) return -EINVAL;
    const std::string bytes(static_cast<const char *>(value), size);
    const int rc = open.inode->writeXattr(name, bytes);
    if (rc == 0 && strcmp(name, kCapability) == 0) open.capability.replace(&bytes);
    return rc;
  });
}

}  // extern "C"
