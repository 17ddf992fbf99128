#include "btrfs/mounts.h"

#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace kest {

namespace {

bool onBtrfs(int fd) {
  struct statfs figures;
  return fstatfs(fd, &figures) == 0 && figures.f_type == BTRFS_SUPER_MAGIC;
}

int openMounted(const std::string &path) {
  int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK);
  return fd < 0 ? -errno : fd;
}

// Returns true if the block device `rdev` belongs to the file system of `fd`.
bool hasDevice(int fd, dev_t rdev) {
  btrfs_ioctl_fs_info_args info;
  memset(&info, 0, sizeof info);
  if (ioctl(fd, BTRFS_IOC_FS_INFO, &info) < 0) return false;
  for (uint64_t id = 0; id <= info.max_id; ++id) {
    btrfs_ioctl_dev_info_args args;
    memset(&args, 0, sizeof args);
    args.devid = id;
    if (ioctl(fd, BTRFS_IOC_DEV_INFO, &args) < 0) continue;
    struct stat status;
    if (stat(reinterpret_cast<const char *>(args.path), &status) == 0 && S_ISBLK(status.st_mode) &&
        status.st_rdev == rdev)
      return true;
  }
  return false;
}

// Keeps the mounts of the file system that `mine` shows, with `mine` first.
void keepMountsOf(const Mount &mine, const std::vector<Mount> &all, std::vector<Mount> *kept) {
  for (const Mount &one : all) {
    if (one.major_no != mine.major_no || one.minor_no != mine.minor_no) continue;
    kept->insert(one.id == mine.id ? kept->begin() : kept->end(), one);
  }
}

int findByBlockDevice(dev_t rdev, const std::vector<Mount> &all, MountedFileSystem *fs) {
  for (const Mount &one : all) {
    UniqueFd fd(openMounted(one.point));
    if (!fd || !onBtrfs(fd.get()) || !hasDevice(fd.get(), rdev)) continue;
    struct statx status;
    // Another btrfs can be mounted over this mount point.
    if (statx(fd.get(), "", AT_EMPTY_PATH, STATX_MNT_ID, &status) < 0) return -errno;
    auto same = [&](const Mount &m) { return static_cast<uint64_t>(m.id) == status.stx_mnt_id; };
    auto mine = std::find_if(all.begin(), all.end(), same);
    if (mine == all.end()) continue;
    keepMountsOf(*mine, all, &fs->mounts);
    fs->fd = std::move(fd);
    return 0;
  }
  return -ENODEV;
}

}  // namespace

int findFileSystem(const std::string &device, MountedFileSystem *fs) {
  UniqueFd fd(open(device.c_str(), O_PATH | O_CLOEXEC));
  if (!fd) return -errno;
  struct statx status;
  if (statx(fd.get(), "", AT_EMPTY_PATH, STATX_TYPE | STATX_MNT_ID, &status) < 0) return -errno;
  std::vector<Mount> all;
  int rc = readMounts(&all);
  if (rc < 0) return rc;
  std::erase_if(all, [](const Mount &one) { return one.type != "btrfs"; });
  if (S_ISBLK(status.stx_mode)) {
    rc = findByBlockDevice(makedev(status.stx_rdev_major, status.stx_rdev_minor), all, fs);
  } else {
    if (!onBtrfs(fd.get())) return -ENODEV;
    auto same = [&](const Mount &m) { return static_cast<uint64_t>(m.id) == status.stx_mnt_id; };
    auto mine = std::find_if(all.begin(), all.end(), same);
    if (mine == all.end()) return -ENODEV;
    keepMountsOf(*mine, all, &fs->mounts);
    // Requests to the file system need a descriptor of a file or directory without O_PATH.
    bool plain = S_ISDIR(status.stx_mode) || S_ISREG(status.stx_mode);
    int real = open(plain ? device.c_str() : mine->point.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (real < 0) return -errno;
    fs->fd.reset(real);
  }
  return rc < 0 ? rc : fileSystemIdOf(fs->fd.get(), &fs->fsid);
}

int openSubvolume(const MountedFileSystem &fs, uint64_t id, const std::string &top_path,
                  std::string *path) {
  struct Candidate {
    int rank;
    std::string path;
  };
  std::vector<Candidate> candidates;
  for (size_t i = 0; i < fs.mounts.size(); ++i) {
    const Mount &mount = fs.mounts[i];
    std::string below = "/" + top_path;
    if (!mount.root.empty()) {
      if (top_path != mount.root && top_path.compare(0, mount.root.size() + 1, mount.root + "/") != 0)
        continue;
      below = top_path.substr(mount.root.size());
    }
    if (below == "/") below.clear();
    int rank = i == 0 ? 0 : below.empty() ? 1 : 2;
    candidates.push_back({rank, (mount.point == "/" ? "" : mount.point) + below});
  }
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const Candidate &a, const Candidate &b) { return a.rank < b.rank; });
  UniqueFd read_only;
  for (Candidate &one : candidates) {
    UniqueFd fd(openMounted(one.path.empty() ? "/" : one.path));
    struct stat status;
    struct statvfs figures;
    Uuid fsid;
    uint64_t found;
    if (!fd || fstat(fd.get(), &status) < 0 || status.st_ino != kFirstInode || !onBtrfs(fd.get()))
      continue;
    if (subvolumeIdOf(fd.get(), &found) < 0 || found != id) continue;
    if (fileSystemIdOf(fd.get(), &fsid) < 0 || fsid != fs.fsid) continue;
    // The path can lead through another mount than the one that it begins with. Only the mount in which
    // it ends counts.
    const bool writable = fstatvfs(fd.get(), &figures) == 0 && (figures.f_flag & ST_RDONLY) == 0;
    if (!writable && read_only) continue;
    *path = std::move(one.path);
    if (writable) return fd.release();
    read_only = std::move(fd);
  }
  return read_only ? read_only.release() : -ENXIO;
}

}  // namespace kest
