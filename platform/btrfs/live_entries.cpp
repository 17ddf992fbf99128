#include "btrfs/live_entries.h"

#include <fcntl.h>
#include <cerrno>

namespace kest {

namespace {
constexpr uint64_t kStub = 2;  // inode number of a subvolume's stub in a snapshot
}

// Finds the address of an entry. *covered is set if something is mounted on it, so that a lookup by
// name ends there. 1; 0: the entry is gone; or -errno.
int LiveEntries::find(const char *name, InodeAddress *address, bool *covered) {
  if (self_.ino == 0) {
    int own = addressOf(dir_fd_, "", &self_);
    if (own < 0) return own;
  }
  int rc = addressOf(dir_fd_, name, address);
  if (rc == -ENOENT) return 0;
  *covered = rc == -EXDEV || (rc == 0 && address->mount_id != self_.mount_id);
  return *covered ? 1 : rc < 0 ? rc : 1;
}

int LiveEntries::resolve(kest_direntx64_t *record) {
  InodeAddress address;
  bool covered;
  int rc = find(record->d_name, &address, &covered);
  if (rc <= 0) return rc;
  if (covered) return resolveCovered(record);
  if (address.subvol_id != self_.subvol_id || address.ino == kStub)
    record->d_flags |= KEST_DF_JUNCTION;
  else
    record->d_gen = address.generation;
  return 1;
}

int LiveEntries::stillMeans(kest_direntx64_t *record) {
  const bool junction = (record->d_flags & KEST_DF_JUNCTION) != 0;
  InodeAddress address;
  bool covered;
  int rc = find(record->d_name, &address, &covered);
  if (rc <= 0) return rc;
  if (covered) {
    // A covered entry can be neither removed nor renamed, so it still means the same.
    kest_direntx64_t found = *record;
    found.d_flags = 0;
    rc = resolveCovered(&found);
    record->d_gen = found.d_gen;
    return rc < 0 ? rc : junction == ((found.d_flags & KEST_DF_JUNCTION) != 0);
  }
  if (junction) return address.subvol_id == record->d_ino;
  if (address.subvol_id != self_.subvol_id || address.ino != record->d_ino) return 0;
  record->d_gen = address.generation;
  return 1;
}

int LiveEntries::resolveCovered(kest_direntx64_t *record) {
  const int fs = root_.fd.get();
  if (!nested_known_) {
    int rc = listNested(fs, self_.subvol_id, dir_ino_, &nested_);
    if (rc < 0) return rc;
    nested_known_ = true;
  }
  for (const Subvolume &one : nested_) {
    if (one.name == record->d_name) {
      record->d_flags |= KEST_DF_JUNCTION;
      return 1;
    }
  }
  UniqueFd fd(openByInode(fs, self_.subvol_id, record->d_ino, 0, O_PATH));
  if (!fd) return 1;
  InodeAddress address;
  if (addressOf(fd.get(), "", &address) == 0) record->d_gen = address.generation;
  return 1;
}

}  // namespace kest
