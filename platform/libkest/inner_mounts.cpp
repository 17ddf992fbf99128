// kest_mount_in_the_way: mounts inside a fileset that a restore cannot leave alone.
#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "btrfs/mounts.h"
#include "libkest/c_call.h"
#include "libkest/inode_scan.h"
#include "libkest/kinship.h"

namespace kest {

namespace {

// The path that begins with `dir`, without it and its slash; false where it does not begin so, or is
// `dir` itself.
bool cutBeginning(std::string_view dir, std::string_view *path) {
  if (!dir.empty()) {
    if (!path->starts_with(dir)) return false;
    path->remove_prefix(dir.size());
    if (!path->starts_with('/')) return false;
  }
  path->remove_prefix(std::min(path->find_first_not_of('/'), path->size()));
  return !path->empty();
}

class InnerMounts {
 public:
  InnerMounts(const kest_fssnap_handle &handle, const kest_fssnap_handle &other,
              const HiddenEntries &hidden)
      : handle_(handle),
        tree_(handle.root.get(), handle.subvol_id),
        other_(handle.root.get(), other.subvol_id),
        hidden_(hidden) {}

  int begin() {
    if (int rc = readMounts(&mounts_); rc < 0) return rc;
    struct statx status;
    if (statx(handle_.root.get(), "", AT_EMPTY_PATH, STATX_MNT_ID, &status) < 0) return -errno;
    own_ = find(static_cast<int>(status.stx_mnt_id));
    return own_ == nullptr ? -ENODEV : 0;
  }

  // 1 and the first mount that is in the way, 0 or -errno.
  int firstInTheWay(kest_iscan_t *scan, std::string *point) {
    for (const Mount &mount : mounts_) {
      std::string below;
      if (!standsInside(mount, &below)) continue;
      int rc = isInTheWay(scan, below);
      if (rc == 0) continue;
      *point = mount.point;
      return rc;
    }
    return 0;
  }

 private:
  const Mount *find(int id) const {
    auto found =
        std::find_if(mounts_.begin(), mounts_.end(), [&](const Mount &m) { return m.id == id; });
    return found == mounts_.end() ? nullptr : &*found;
  }

  // Whichever mount of the file system it stands on: a directory that something stands on in any of
  // them can be neither renamed nor removed.
  bool standsInside(const Mount &mount, std::string *below) const {
    const Mount *parent = find(mount.parent_id);
    if (parent == nullptr || parent->major_no != own_->major_no || parent->minor_no != own_->minor_no)
      return false;
    std::string_view place = mount.point;
    if (!cutBeginning(parent->point == "/" ? "" : parent->point, &place)) return false;
    const std::string path =
        parent->root.empty() ? std::string(place) : parent->root + "/" + std::string(place);
    std::string_view rest = path;
    if (!cutBeginning(handle_.top_path, &rest)) return false;
    *below = rest;
    return true;
  }

  int isInTheWay(kest_iscan_t *scan, const std::string &below) {
    uint64_t ino = kFirstInode;
    for (size_t at = 0, end; at < below.size(); at = end + 1) {
      end = std::min(below.find('/', at), below.size());
      const std::string name = below.substr(at, end - at);
      if (hidden_.hidesName(ino, name)) return 0;
      DirEntryItem entry;
      if (int rc = findEntry(tree_, ino, name, &entry); rc <= 0) return rc;
      if (entry.subvolume) {
        // Below its root it is another fileset's; the root itself would be moved away.
        int rc = hidden_.hidesSubvolume(ino, name, entry.target);
        return rc < 0 ? rc : rc == 0 && end == below.size();
      }
      ino = entry.target;
    }
    InodeItem item;
    int rc = readInode(other_, ino, &item);
    if (rc <= 0) return rc < 0 ? rc : 1;
    rc = kest_leads_to_change(scan, ino);
    return rc < 0 ? -errno : rc;
  }

  const kest_fssnap_handle &handle_;
  TreeReader tree_, other_;
  const HiddenEntries &hidden_;
  std::vector<Mount> mounts_;
  const Mount *own_ = nullptr;
};

}  // namespace

}  // namespace kest

extern "C" int kest_mount_in_the_way(const kest_fssnap_handle_t *active,
                                     const kest_fssnap_handle_t *snap, kest_iscan_t *scan, char *point,
                                     size_t size) {
  return kest::cCall([&] {
    if (active == nullptr || snap == nullptr || scan == nullptr || !scan->difference ||
        point == nullptr || size == 0)
      return -EINVAL;
    // Computes the difference, and so commits: the trees below are searched by name.
    if (kest_leads_to_change(scan, kest::kFirstInode) < 0) return -errno;
    const kest::HiddenEntries hidden(*active, snap->subvol_id);
    for (const kest_fssnap_handle *one : {active, snap}) {
      kest::InnerMounts mounts(*one, one == active ? *snap : *active, hidden);
      std::string found;
      int rc = mounts.begin();
      if (rc == 0) rc = mounts.firstInTheWay(scan, &found);
      if (rc == 0) continue;
      point[found.copy(point, size - 1)] = '\0';
      return rc;
    }
    return 0;
  });
}
