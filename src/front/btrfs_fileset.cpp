#include "front/btrfs_fileset.h"

#include <btrfsutil.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/magic.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "base/fd_path.h"
#include "formats/shell_words.h"
#include "front/btrfs_store.h"
#include "front/mount_lines.h"
#include "front/text.h"
#include "front/trouble.h"
#include "messages/front_texts.h"

namespace front {

namespace {

constexpr ino_t kRootInode = 256;  // inode number of the root directory of every subvolume

[[noreturn]] void cannotRead(const std::string &path, int error) {
  throw Trouble(frontText(FrontText::kCannotRead, shown(path), strerror(error)));
}

// An object that the user named, opened so that its file system can be queried.
struct Named {
  UniqueFd fd;
  uint64_t mount_id = 0;
  bool block_device = false;
  bool read_only = false;  // the mount is read-only
};

Named openNamed(const std::string &path) {
  Named named;
  const UniqueFd object(open(path.c_str(), O_PATH | O_CLOEXEC));
  struct statx status;
  if (!object || statx(object.get(), "", AT_EMPTY_PATH, STATX_TYPE | STATX_MNT_ID, &status) != 0)
    cannotRead(path, errno);
  named.mount_id = status.stx_mnt_id;
  named.block_device = S_ISBLK(status.stx_mode);
  if (named.block_device) return named;
  if (!S_ISDIR(status.stx_mode) && !S_ISREG(status.stx_mode))
    throw Trouble(frontText(FrontText::kNoDirectory, shown(path)));
  named.fd.reset(reopen(object.get(), O_RDONLY | O_NONBLOCK));
  struct statfs figures;
  if (!named.fd || fstatfs(named.fd.get(), &figures) != 0) cannotRead(path, errno);
  if (figures.f_type != BTRFS_SUPER_MAGIC) throw Trouble(frontText(FrontText::kNotBtrfs, shown(path)));
  named.read_only = (figures.f_flags & ST_RDONLY) != 0;
  return named;
}

// Returns a block device of the file system of `fd`; "" if the kernel names none.
std::string blockDevice(int fd) {
  btrfs_ioctl_fs_info_args info{};
  if (ioctl(fd, BTRFS_IOC_FS_INFO, &info) != 0) return "";
  for (uint64_t id = 0; id <= info.max_id; ++id) {
    btrfs_ioctl_dev_info_args device{};
    device.devid = id;
    struct stat status;
    const char *path = reinterpret_cast<const char *>(device.path);
    if (ioctl(fd, BTRFS_IOC_DEV_INFO, &device) == 0 && stat(path, &status) == 0 &&
        S_ISBLK(status.st_mode))
      return path;
  }
  return "";
}

// Finds the id, path and UUID of the subvolume that the user means.
void identify(const Place &place, int fd, Fileset *fileset) {
  btrfs_util_error error;
  if (place.fileset.empty()) {
    error = btrfs_util_subvolume_id_fd(fd, &fileset->id);
    char *path = nullptr;
    if (error == BTRFS_UTIL_OK) error = btrfs_util_subvolume_path_fd(fd, fileset->id, &path);
    if (error != BTRFS_UTIL_OK) cannotRead(place.path, errno);
    fileset->path = path;
    free(path);
  } else {
    std::string path = place.fileset;
    while (path.starts_with('/')) path.erase(0, 1);
    while (path.ends_with('/')) path.pop_back();
    const std::string whole = fileset->top.point() + "/" + path;
    error = btrfs_util_is_subvolume(whole.c_str());
    if (error == BTRFS_UTIL_OK) error = btrfs_util_subvolume_id(whole.c_str(), &fileset->id);
    if (error != BTRFS_UTIL_OK) throw Trouble(frontText(FrontText::kNoFileset, shown(place.fileset)));
    fileset->path = path;
  }
  struct btrfs_util_subvolume_info info;
  if (btrfs_util_subvolume_info_fd(fd, fileset->id, &info) != BTRFS_UTIL_OK)
    cannotRead(place.path, errno);
  std::copy(std::begin(info.uuid), std::end(info.uuid), fileset->uuid.begin());
}

// Opens `path` if it is the root directory of the fileset.
UniqueFd openRoot(const std::string &path, const Fileset &fileset) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
  struct stat status;
  uint64_t id = 0;
  if (!fd || fstat(fd.get(), &status) != 0 || status.st_ino != kRootInode ||
      btrfs_util_subvolume_id_fd(fd.get(), &id) != BTRFS_UTIL_OK || id != fileset.id)
    return UniqueFd();
  return fd;
}

// Finds a mount that shows the fileset's root. Prefers the mount on which the user's path lies.
void findRoot(std::vector<MountLine> mounts, uint64_t named_mount, Fileset *fileset) {
  std::stable_sort(mounts.begin(), mounts.end(), [&](const MountLine &a, const MountLine &b) {
    return (a.id == named_mount) > (b.id == named_mount);
  });
  for (const MountLine &mount : mounts) {
    const std::string path = placeIn(mount, fileset->path);
    if (path.empty()) continue;
    fileset->root = openRoot(path, *fileset);
    if (!fileset->root) continue;
    fileset->root_path = path;
    fileset->device = mount.point;
    return;
  }
  fileset->device = fileset->top.point();
  fileset->root_path = fileset->top.point() + (fileset->path.empty() ? "" : "/" + fileset->path);
  if (!fileset->top.point().empty()) fileset->root = openRoot(fileset->root_path, *fileset);
  if (!fileset->root) throw Trouble(frontText(FrontText::kNotVisible, shown(fileset->name())));
}

// Returns the path of the fileset's root if it is mounted, else the arguments with which the user named
// it.
std::string nameForUser(const Place &place, const Fileset &fileset) {
  if (fileset.device != fileset.top.point()) return shellWord(fileset.root_path);
  if (place.fileset.empty()) return shellWord(place.path);
  return "--fileset " + shellWord(place.fileset) + " " + shellWord(place.path);
}

}  // namespace

Fileset findBtrfsFileset(const Place &place, bool to_change) {
  Fileset fileset;
  fileset.store = &btrfsStore();
  Named named = openNamed(place.path);
  if (named.block_device && place.fileset.empty()) throw Trouble(frontText(FrontText::kWhichFileset));
  std::vector<MountLine> mounts = btrfsMounts();
  try {
    std::string device = named.block_device ? place.path : blockDevice(named.fd.get());
    if (device.empty())
      for (const MountLine &mount : mounts)
        if (mount.id == named.mount_id) device = mount.source;
    fileset.top = TopMount(device, !to_change || named.read_only);
  } catch (const Trouble &) {
    if (named.block_device || !place.fileset.empty()) throw;
  }
  if (named.block_device || !place.fileset.empty()) named = openNamed(fileset.top.point());
  identify(place, named.fd.get(), &fileset);
  findRoot(mounts, named.mount_id, &fileset);
  struct stat status;
  if (fstat(fileset.root.get(), &status) != 0) cannotRead(fileset.root_path, errno);
  fileset.device_number = status.st_dev;
  for (const MountLine &mount : mounts) {
    const std::string whole = placeIn(mount, fileset.path), &seen = whole.empty() ? mount.point : whole;
    if (stat(seen.c_str(), &status) == 0 && status.st_dev == fileset.device_number)
      fileset.mounts.push_back(seen);
  }
  fileset.named = nameForUser(place, fileset);
  return fileset;
}

}  // namespace front
