#include "btrfs/inner_mounts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "btrfs/relatives.h"
#include "btrfs/tree_items.h"
#include "filesystem/mount_table.h"

namespace kest {

namespace {

// Removes `dir` and the following slash from the start of the path. Returns false if the path does not
// lie below `dir`.
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
  InnerMounts(const TreeRoot &root, const HiddenEntries &hidden, const DifferenceSet &difference)
      : root_(root), tree_(root.fd.get(), root.subvol_id), hidden_(hidden), difference_(difference) {}

  int begin() {
    if (int rc = readMounts(&mounts_); rc < 0) return rc;
    struct statx status;
    if (statx(root_.fd.get(), "", AT_EMPTY_PATH, STATX_MNT_ID, &status) < 0) return -errno;
    own_ = find(static_cast<int>(status.stx_mnt_id));
    return own_ == nullptr ? -ENODEV : 0;
  }

  // Finds the first mount in the way. 1, 0 or -errno.
  int firstInTheWay(std::string *point) {
    for (const Mount &mount : mounts_) {
      std::string below;
      if (!isInside(mount, &below)) continue;
      int rc = isInTheWay(below);
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

  // Returns true if the mount point lies in the tree, through whichever mount of the file system: a
  // directory that is a mount point in any of them can be neither renamed nor removed.
  bool isInside(const Mount &mount, std::string *below) const {
    const Mount *parent = find(mount.parent_id);
    if (parent == nullptr || parent->major_no != own_->major_no || parent->minor_no != own_->minor_no)
      return false;
    std::string_view place = mount.point;
    if (!cutBeginning(parent->point == "/" ? "" : parent->point, &place)) return false;
    const std::string path =
        parent->root.empty() ? std::string(place) : parent->root + "/" + std::string(place);
    std::string_view rest = path;
    if (!cutBeginning(root_.top_path, &rest)) return false;
    *below = rest;
    return true;
  }

  int isInTheWay(const std::string &below) {
    uint64_t ino = kFirstInode;
    for (size_t at = 0, end; at < below.size(); at = end + 1) {
      end = std::min(below.find('/', at), below.size());
      const std::string name = below.substr(at, end - at);
      DirEntryItem entry;
      if (int rc = findEntry(tree_, ino, name, &entry); rc <= 0) return rc;
      if (int rc = hidden_.hidesName(ino, name, entry.type); rc != 0) return std::min(rc, 0);
      if (entry.junction) {
        // What lies inside the junction belongs to another fileset. The junction itself would be moved
        // or unlinked.
        int rc = hidden_.hidesSubvolume(ino, name, entry.target);
        return rc < 0 ? rc : rc == 0 && end == below.size();
      }
      ino = entry.target;
    }
    // An inode that only one tree has is in the difference, unless it has a twin in the other one.
    return difference_.find(ino).state != 0 || difference_.leads(ino);
  }

  const TreeRoot &root_;
  TreeReader tree_;
  const HiddenEntries &hidden_;
  const DifferenceSet &difference_;
  std::vector<Mount> mounts_;
  const Mount *own_ = nullptr;
};

}  // namespace

int findMountInTheWay(const TreeRoot &active, const TreeRoot &snapshot, const DifferenceSet &difference,
                      std::string *point) {
  const HiddenEntries hidden(active, snapshot.subvol_id);
  for (const TreeRoot *one : {&active, &snapshot}) {
    InnerMounts mounts(*one, hidden, difference);
    int rc = mounts.begin();
    if (rc == 0) rc = mounts.firstInTheWay(point);
    if (rc != 0) return rc;
  }
  return 0;
}

}  // namespace kest
