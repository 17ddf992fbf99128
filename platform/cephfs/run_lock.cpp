#include "cephfs/run_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

#include "base/unique_fd.h"

namespace kest {

namespace {

constexpr int kAttempts = 100;  // while other runs remove the file

bool isOurs(mode_t mode, uid_t uid, uint64_t size) {
  return S_ISREG(mode) && uid == 0 && size == 0;
}

// Runs `call`, which adds a name to the root directory or takes one away, and sets its times back.
template <typename Call>
int keepingTimes(const CephRoot &root, Call call) {
  CephStat st;
  if (int rc = root.client->readStat(root.inode, &st); rc < 0) return rc;
  const int rc = call();
  CephStat times{};
  times.stx_mtime = st.stx_mtime;
  const int set = ceph_ll_setattr(root.client->mount(), root.inode.get(), &times, CEPH_SETATTR_MTIME,
                                  root.client->perms());
  return rc < 0 ? rc : set;
}

// Makes the file through the client, because that ignores quotas.
int makeLockFile(const CephRoot &root) {
  CephClient &client = *root.client;
  ::Inode *made = nullptr;
  ::Fh *file = nullptr;
  CephStat st;
  const int rc = ceph_ll_create(client.mount(), root.inode.get(), kLockFile, 0600,
                                O_CREAT | O_EXCL | O_RDWR, &made, &file, &st, 0, 0, client.perms());
  if (rc < 0) return rc == -EEXIST ? 0 : rc;
  const int closed = ceph_ll_close(client.mount(), file);
  ceph_ll_put(client.mount(), made);
  return closed;
}

// Opens the file through the mount, so that the lock belongs to the descriptor, which other processes
// inherit, and not to the client of this process.
int openLockFile(const CephRoot &root, UniqueFd *fd) {
  const auto open = [&] {
    fd->reset(openat(root.fd.get(), kLockFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return *fd ? 0 : -errno;
  };
  int rc = open();
  if (rc != -ENOENT) return rc;
  rc = keepingTimes(root, [&] { return makeLockFile(root); });
  return rc < 0 ? rc : open();
}

}  // namespace

void leaveOutLockFile(const CephRoot &root, uint64_t dir, std::vector<CephEntry> *entries) {
  if (dir != root.ino) return;
  std::erase_if(*entries, [](const CephEntry &one) {
    return one.name == kLockFile && isOurs(one.st.stx_mode, one.st.stx_uid, one.st.stx_size);
  });
}

int lockFileset(const CephRoot &root) {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    UniqueFd fd;
    const int rc = openLockFile(root, &fd);
    if (rc == -ENOENT) continue;  // it has just been removed
    if (rc < 0) return rc;
    // This call answers at once. fstat, or opening the file for writing, would wait for the client of a
    // lost node until it is evicted.
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) return -errno;
    struct stat st, named;
    if (fstat(fd.get(), &st) != 0) return -errno;
    // Somebody else's file has the name.
    if (!isOurs(st.st_mode, st.st_uid, static_cast<uint64_t>(st.st_size))) return -EEXIST;
    // A run that ended meanwhile may have removed it.
    if (fstatat(root.fd.get(), kLockFile, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
        named.st_ino == st.st_ino)
      return fd.release();
  }
  return -EWOULDBLOCK;
}

int removeLockFile(const CephRoot &root) {
  return keepingTimes(root, [&] {
    const int rc =
        ceph_ll_unlink(root.client->mount(), root.inode.get(), kLockFile, root.client->perms());
    return rc == -ENOENT ? 0 : rc;
  });
}

}  // namespace kest
