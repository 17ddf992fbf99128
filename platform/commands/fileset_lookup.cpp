#include "commands/fileset_lookup.h"

#include <endian.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>
#include <cerrno>
#include <cstring>
#include <map>

#include "btrfs/file_handle.h"
#include "btrfs/tree_search.h"

namespace kest {

bool findFileset(const std::string &device, const std::string &fileset, Fileset *found,
                 std::string *problem) {
  int rc = findFileSystem(device, &found->fs);
  if (rc == -ENODEV) {
    *problem = device + " is no mounted btrfs";
    return false;
  }
  if (rc == 0) rc = found->table.load(found->fs.fd.get());
  if (rc < 0) {
    *problem = device + ": " + strerror(-rc);
    return false;
  }
  size_t first = fileset.find_first_not_of('/');
  size_t last = fileset.find_last_not_of('/');
  found->path = first == std::string::npos ? "" : fileset.substr(first, last - first + 1);
  for (const Subvolume &one : found->table.all()) {
    std::string path;
    if (one.deleted || found->table.pathOf(one.id, &path) < 0 || path != found->path) continue;
    // "" is the top level's path alone.
    found->subvolume = one;
    return true;
  }
  *problem = "no fileset " + fileset + " on " + device;
  return false;
}

int findSnapshots(const Fileset &fileset, std::vector<Snapshot> *snapshots) {
  std::map<std::string, int> uses;
  for (const Subvolume &one : fileset.table.all()) {
    if (one.deleted || one.id == kTopLevel || one.id == fileset.subvolume.id || one.parent_id == 0 ||
        !fileset.table.related(fileset.subvolume.id, one.id, nullptr)) {
      continue;
    }
    snapshots->push_back({one, one.name});
    uses[one.name]++;
  }
  for (Snapshot &one : *snapshots) {
    if (uses[one.name] < 2) continue;
    int rc = fileset.table.pathOf(one.subvolume.id, &one.name);
    if (rc < 0) return rc;
    // Without a slash it would be read as a last component again.
    if (one.name.find('/') == std::string::npos) one.name.insert(0, "/");
  }
  return 0;
}

int readState(const Fileset &fileset, uint64_t id, SubvolumeState *state) {
  int fd = openByInode(fileset.fs.fd.get(), id, kFirstInode, 0, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return fd;
  UniqueFd root(fd);
  struct btrfs_ioctl_get_subvol_info_args info;
  memset(&info, 0, sizeof(info));
  if (ioctl(root.get(), BTRFS_IOC_GET_SUBVOL_INFO, &info) < 0) return -errno;
  state->created = static_cast<int64_t>(info.otime.sec);
  state->read_only = info.flags & BTRFS_ROOT_SUBVOL_RDONLY;
  return 0;
}

}  // namespace kest
