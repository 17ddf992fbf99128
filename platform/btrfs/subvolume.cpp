#include "btrfs/subvolume.h"

#include <endian.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/unique_fd.h"

namespace kest {

namespace {

constexpr size_t kBatch = 64 * 1024;

struct RootRef {
  uint64_t dir;
  std::string name;
};

bool decodeRootRef(const TreeItem &item, RootRef *ref) {
  btrfs_root_ref raw;
  if (item.size < sizeof raw) return false;
  memcpy(&raw, item.data, sizeof raw);
  size_t size = le16toh(raw.name_len);
  if (item.size < sizeof raw + size) return false;
  ref->dir = le64toh(raw.dirid);
  ref->name.assign(reinterpret_cast<const char *>(item.data) + sizeof raw, size);
  return true;
}

void decodeRoot(const TreeItem &item, Subvolume *one) {
  // Items written by old kernels end before the UUIDs.
  btrfs_root_item raw;
  memset(&raw, 0, sizeof raw);
  memcpy(&raw, item.data, std::min<size_t>(item.size, sizeof raw));
  one->deleted = le32toh(raw.refs) == 0;
  memcpy(one->uuid.data(), raw.uuid, sizeof raw.uuid);
  memcpy(one->parent_uuid.data(), raw.parent_uuid, sizeof raw.parent_uuid);
  // The key of a snapshot's item holds the transaction that made it; in old items the field is 0.
  one->otransid = item.key.offset != 0 ? item.key.offset : le64toh(raw.otransid);
  one->created = static_cast<int64_t>(le64toh(raw.otime.sec));
}

// Calls visit(item) for all items of the root tree in [from, to]. 0 or -errno.
template <typename Visit>
int forEachRootItem(int fd, TreeKey from, const TreeKey &to, Visit visit) {
  TreeBatch batch;
  for (;;) {
    int rc = batch.read(fd, BTRFS_ROOT_TREE_OBJECTID, from, to, 0, kBatch);
    if (rc < 0) return rc;
    if (batch.items().empty()) return 0;
    for (const TreeItem &item : batch.items()) visit(item);
    from = batch.items().back().key.next();
    if (from > to) return 0;
  }
}

const Uuid kNoUuid{};

}  // namespace

int SubvolumeTable::load(int fd) {
  fd_ = fd;
  all_.clear();
  births_.clear();
  auto visit = [&](const TreeItem &item) {
    uint64_t id = item.key.objectid;
    if (id != kTopLevel && id < kFirstInode) return;
    if (item.key.type == BTRFS_ROOT_ITEM_KEY) {
      Subvolume &one = all_.emplace_back();
      one.id = id;
      decodeRoot(item, &one);
    } else if (item.key.type == BTRFS_ROOT_BACKREF_KEY && !all_.empty() && all_.back().id == id) {
      RootRef ref;
      if (!decodeRootRef(item, &ref)) return;
      all_.back().parent_id = item.key.offset;
      all_.back().dir = ref.dir;
      all_.back().name = std::move(ref.name);
    }
  };
  return forEachRootItem(fd, {kTopLevel, 0, 0}, {kLastInode, 255, UINT64_MAX}, visit);
}

const Subvolume *SubvolumeTable::find(uint64_t id) const {
  auto at = std::lower_bound(all_.begin(), all_.end(), id,
                             [](const Subvolume &one, uint64_t key) { return one.id < key; });
  return at != all_.end() && at->id == id ? &*at : nullptr;
}

const Subvolume *SubvolumeTable::byUuid(const Uuid &uuid) const {
  for (const Subvolume &one : all_)
    if (one.uuid == uuid) return &one;
  return nullptr;
}

SubvolumeTable::Chain SubvolumeTable::chainOf(uint64_t id) const {
  Chain chain;
  const Subvolume *one = find(id);
  if (one == nullptr) return chain;
  if (one->uuid != kNoUuid) chain.ancestors.push_back({one->uuid, UINT64_MAX});
  // A deleted ancestor has no item any more, but its UUID still connects its descendants.
  while (one != nullptr && one->parent_uuid != kNoUuid && chain.ancestors.size() <= all_.size()) {
    chain.ancestors.push_back({one->parent_uuid, one->otransid});
    one = byUuid(one->parent_uuid);
  }
  chain.whole = one != nullptr && one->uuid != kNoUuid;
  return chain;
}

int SubvolumeTable::birthOf(uint64_t id, std::optional<Birth> *birth) const {
  auto known = births_.find(id);
  if (known == births_.end()) {
    TreeReader tree(fd_, id, 1);
    InodeItem root;
    const int rc = readInode(tree, kFirstInode, &root);
    if (rc < 0 && rc != -ENOENT) return rc;
    std::optional<Birth> read;
    if (rc > 0) read = {root.generation, root.otime};
    known = births_.emplace(id, read).first;
  }
  *birth = known->second;
  return 0;
}

int SubvolumeTable::relatedByBirth(uint64_t a, uint64_t b, uint64_t *line) const {
  std::optional<Birth> mine, theirs;
  int rc = birthOf(a, &mine);
  if (rc == 0) rc = birthOf(b, &theirs);
  if (rc < 0 || !mine || !theirs || *mine != *theirs) return rc;
  // It is unknown where the two parted; the earliest possible moment is right after their common birth.
  if (line != nullptr) *line = mine->generation > 0 ? mine->generation - 1 : 0;
  return 1;
}

int SubvolumeTable::related(uint64_t a, uint64_t b, uint64_t *line) const {
  const Chain mine = chainOf(a), theirs = chainOf(b);
  // The chains begin with the subvolumes themselves, so the first match is the nearest common
  // ancestor.
  for (const Ancestor &x : mine.ancestors) {
    for (const Ancestor &y : theirs.ancestors) {
      if (x.uuid != y.uuid) continue;
      if (line != nullptr) *line = std::min(x.left, y.left);
      return 1;
    }
  }
  return mine.whole && theirs.whole ? 0 : relatedByBirth(a, b, line);
}

int SubvolumeTable::pathOf(uint64_t id, std::string *path) const {
  path->clear();
  for (size_t depth = 0; id != kTopLevel; ++depth) {
    const Subvolume *one = find(id);
    if (one == nullptr || one->parent_id == 0 || depth > all_.size()) return -ENOENT;
    std::string dir;
    int rc = directoryPath(fd_, one->parent_id, one->dir, &dir);
    if (rc < 0) return rc;
    *path = dir + one->name + (path->empty() ? "" : "/") + *path;
    id = one->parent_id;
  }
  return 0;
}

int findRootRef(int fd, uint64_t parent_id, uint64_t id, uint64_t *dir, std::string *name) {
  TreeBatch batch;
  TreeKey key{parent_id, BTRFS_ROOT_REF_KEY, id};
  int rc = batch.read(fd, BTRFS_ROOT_TREE_OBJECTID, key, key, 0, 4096, 1);
  if (rc < 0) return rc;
  RootRef ref;
  if (batch.items().empty() || !decodeRootRef(batch.items().front(), &ref)) return 0;
  *dir = ref.dir;
  *name = std::move(ref.name);
  return 1;
}

int listNested(int fd, uint64_t parent_id, uint64_t dir, std::vector<Subvolume> *nested) {
  nested->clear();
  return forEachRootItem(fd, {parent_id, BTRFS_ROOT_REF_KEY, 0},
                         {parent_id, BTRFS_ROOT_REF_KEY, UINT64_MAX}, [&](const TreeItem &item) {
                           RootRef ref;
                           if (!decodeRootRef(item, &ref) || (dir != 0 && ref.dir != dir)) return;
                           Subvolume &one = nested->emplace_back();
                           one.id = item.key.offset;
                           one.parent_id = parent_id;
                           one.dir = ref.dir;
                           one.name = std::move(ref.name);
                         });
}

int subvolumeIdOf(int fd, uint64_t *id) {
  btrfs_ioctl_ino_lookup_args args;
  memset(&args, 0, sizeof args);
  args.objectid = BTRFS_FIRST_FREE_OBJECTID;
  if (ioctl(fd, BTRFS_IOC_INO_LOOKUP, &args) < 0) return -errno;
  *id = args.treeid;
  return 0;
}

int fileSystemIdOf(int fd, Uuid *fsid) {
  btrfs_ioctl_fs_info_args args;
  memset(&args, 0, sizeof args);
  if (ioctl(fd, BTRFS_IOC_FS_INFO, &args) < 0) return -errno;
  memcpy(fsid->data(), args.fsid, fsid->size());
  return 0;
}

int isReadOnly(int fd) {
  uint64_t flags = 0;
  if (ioctl(fd, BTRFS_IOC_SUBVOL_GETFLAGS, &flags) < 0) return -errno;
  return (flags & BTRFS_SUBVOL_RDONLY) != 0 ? 1 : 0;
}

int movingSubvolume(int dir_fd, const std::string &name, const std::function<int()> &step) {
  int rc = step();
  if (rc != -EROFS) return rc;
  UniqueFd root(openat(dir_fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!root) return -errno;
  btrfs_ioctl_get_subvol_info_args info;
  memset(&info, 0, sizeof info);
  if (ioctl(root.get(), BTRFS_IOC_GET_SUBVOL_INFO, &info) < 0) return -errno;
  const bool received = memcmp(info.received_uuid, kNoUuid.data(), kNoUuid.size()) != 0;
  if (!(info.flags & BTRFS_ROOT_SUBVOL_RDONLY) || received) return -EROFS;
  uint64_t flags = 0;
  if (ioctl(root.get(), BTRFS_IOC_SUBVOL_SETFLAGS, &flags) < 0) return -errno;
  rc = step();
  flags = BTRFS_SUBVOL_RDONLY;
  if (ioctl(root.get(), BTRFS_IOC_SUBVOL_SETFLAGS, &flags) < 0 && rc == 0) rc = -errno;
  return rc;
}

int directoryPath(int fd, uint64_t subvol_id, uint64_t dir, std::string *path) {
  path->clear();
  if (dir == kFirstInode) return 0;
  btrfs_ioctl_ino_lookup_args args;
  memset(&args, 0, sizeof args);
  args.treeid = subvol_id;
  args.objectid = dir;
  if (ioctl(fd, BTRFS_IOC_INO_LOOKUP, &args) == 0) {
    *path = args.name;
    return 0;
  }
  if (errno != ENAMETOOLONG) return -errno;
  // The path is too long for this request, so go up name by name.
  TreeReader tree(fd, subvol_id);
  std::vector<NameRef> names;
  while (dir != kFirstInode) {
    int rc = readNames(tree, dir, &names);
    if (rc < 0) return rc;
    if (names.empty()) return -ENOENT;
    path->insert(0, names.front().name + "/");
    dir = names.front().parent;
  }
  return 0;
}

}  // namespace kest
