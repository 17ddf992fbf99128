#include "btrfs/file_system.h"

#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "btrfs/file_handle.h"
#include "btrfs/fileset_lookup.h"
#include "btrfs/relatives.h"
#include "btrfs/tree.h"
#include "btrfs/unlink_fileset.h"
#include "filesystem/error_text.h"

namespace kest {

namespace {

struct SubvolumeState {
  int64_t created = 0;  // seconds since 1970
  bool read_only = false;
};

// Reads the state of subvolume `id` of the file system of `fd`. 0 or -errno.
int readState(int fd, uint64_t id, SubvolumeState *state) {
  UniqueFd root(openByInode(fd, id, kFirstInode, 0, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root) return root.get();
  struct btrfs_ioctl_get_subvol_info_args info;
  memset(&info, 0, sizeof(info));
  if (ioctl(root.get(), BTRFS_IOC_GET_SUBVOL_INFO, &info) < 0) return -errno;
  state->created = static_cast<int64_t>(info.otime.sec);
  state->read_only = info.flags & BTRFS_ROOT_SUBVOL_RDONLY;
  return 0;
}

std::string hex(const Uuid &uuid) {
  std::string text;
  for (uint8_t byte : uuid) {
    char digits[3];
    snprintf(digits, sizeof(digits), "%02x", byte);
    text += digits;
  }
  return text;
}

}  // namespace

int BtrfsFileSystem::openTree(const char *fileset_name, const char *snapshot_name,
                              std::unique_ptr<Tree> *tree) const {
  SubvolumeTable table;
  int rc = table.load(mounted_.fd.get());
  if (rc < 0) return failWith(-rc, "cannot read the subvolumes of " + device_ + ": " + strerror(-rc));
  const Subvolume *fileset, *target;
  rc = findFileset(table, fileset_name, device_, &fileset);
  if (rc < 0) return rc;
  target = fileset;
  TreeRoot root;
  if (snapshot_name != nullptr) {
    rc = table.pathOf(fileset->id, &root.top_path);
    if (rc < 0) return rc;
    rc = findSnapshot(table, snapshot_name, *fileset, root.displayName(), &target);
    if (rc < 0) return rc;
  }
  rc = table.pathOf(target->id, &root.top_path);
  if (rc < 0) return rc;
  root.subvol_id = target->id;
  root.fileset_id = fileset->id;
  root.fsid = mounted_.fsid;
  root.fd.reset(openSubvolume(mounted_, target->id, root.top_path, &root.path));
  if (root.fd.get() == -ENXIO)
    return failWith(
        ENXIO,
        "no mount shows subvolume " + root.displayName() + " of the file system of " + device_ +
            ": mount it, or one that it stands in, with -o subvolid=" + std::to_string(target->id));
  if (!root.fd) return root.fd.get();
  struct stat status;
  if (fstat(root.fd.get(), &status) < 0) return -errno;
  root.device = status.st_dev;
  if (root.path.empty()) root.path = "/";
  if (target != fileset) {
    uint64_t line = 0;
    if (rc = table.related(fileset->id, target->id, &line); rc < 0) return rc;
    rememberSnapshot(root, target->id, line);
  }
  *tree = std::make_unique<BtrfsTree>(std::move(root));
  return 0;
}

int BtrfsFileSystem::commit() const {
  return syncfs(mounted_.fd.get()) < 0 ? -errno : 0;
}

int BtrfsFileSystem::listSnapshots(const std::string &fileset_name, std::string *path,
                                   std::vector<SnapshotInfo> *snapshots) const {
  SubvolumeTable table;
  setErrorText(device_);
  if (int rc = table.load(mounted_.fd.get()); rc < 0) return rc;
  const Subvolume *fileset = findByPath(table, fileset_name);
  if (fileset == nullptr) return -ENOENT;
  setErrorText(fileset_name);
  std::vector<NamedSnapshot> found;
  int rc = table.pathOf(fileset->id, path);
  if (rc == 0) rc = kest::listSnapshots(table, *fileset, &found);
  if (rc < 0) return rc;
  for (NamedSnapshot &one : found) {
    SubvolumeState state;
    rc = readState(mounted_.fd.get(), one.subvolume->id, &state);
    if (rc == -ENOENT) continue;  // deleted meanwhile
    if (rc < 0) return failWith(-rc, one.name);
    snapshots->push_back({one.subvolume->id, std::move(one.name), state.created, state.read_only});
  }
  return 0;
}

int BtrfsFileSystem::describeFileset(const std::string &fileset, FilesetInfo *info) const {
  SubvolumeTable table;
  setErrorText(device_);
  if (int rc = table.load(mounted_.fd.get()); rc < 0) return rc;
  const Subvolume *found = findByPath(table, fileset);
  if (found == nullptr) return -ENOENT;
  setErrorText(fileset);
  std::vector<NamedSnapshot> snapshots;
  SubvolumeState state;
  int rc = table.pathOf(found->id, &info->path);
  if (rc == 0) rc = kest::listSnapshots(table, *found, &snapshots);
  if (rc == 0) rc = readState(mounted_.fd.get(), found->id, &state);
  if (rc < 0) return rc;
  info->file_system = hex(mounted_.fsid);
  info->name = found->name;
  info->id = found->id;
  info->uuid = hex(found->uuid);
  info->origin_uuid = hex(found->parent_uuid);
  info->parent_id = found->parent_id;
  info->parent_dir = found->dir;
  info->root_ino = kFirstInode;
  info->transaction = found->otransid;
  info->created = state.created;
  info->read_only = state.read_only;
  info->snapshots = snapshots.size();
  const UniqueFd shown(openSubvolume(mounted_, found->id, info->path, &info->mounted_at));
  info->mounted = static_cast<bool>(shown);
  return 0;
}

int BtrfsFileSystem::unlinkFileset(const std::string &path, std::string *where) const {
  return unlinkSubvolume(mounted_, device_, path, where);
}

int openBtrfs(const std::string &device, std::unique_ptr<FileSystem> *fs) {
  MountedFileSystem mounted;
  const int rc = findFileSystem(device, &mounted);
  if (rc == 0) *fs = std::make_unique<BtrfsFileSystem>(std::move(mounted), device);
  return rc;
}

int openBtrfsTreeAt(const std::string &path, std::unique_ptr<Tree> *tree) {
  TreeRoot root;
  root.fd.reset(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root.fd) return -errno;
  if (int rc = subvolumeIdOf(root.fd.get(), &root.subvol_id); rc < 0) return rc;
  root.fileset_id = root.subvol_id;
  root.path = path;
  *tree = std::make_unique<BtrfsTree>(std::move(root));
  return 0;
}

}  // namespace kest
