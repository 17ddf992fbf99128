#include "cephfs/tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <vector>

#include "cephfs/difference.h"
#include "cephfs/directory.h"
#include "cephfs/inode.h"
#include "cephfs/names.h"
#include "cephfs/obstacles.h"
#include "filesystem/error_text.h"

namespace kest {

namespace {

// Numbers have 48 bits: a mount uses the others for the snapshot.
constexpr uint64_t kLargestInode = (1ull << 48) - 1;

// Every inode of a tree. The servers keep no list by number, so the first question for more than one
// inode walks the whole tree.
class CephScan : public InodeScan {
 public:
  explicit CephScan(std::shared_ptr<const CephRoot> root) : root_(std::move(root)) {}

  int next(uint64_t from, uint64_t to, kest_iattr64_t *attr) override {
    if (!listed_) {
      if (int rc = listAll(); rc < 0) return rc;
      listed_ = true;
    }
    for (auto one = std::lower_bound(numbers_.begin(), numbers_.end(), from);
         one != numbers_.end() && *one <= to; ++one) {
      const int rc = read(*one, attr);
      if (rc != 0) return rc;
    }
    return 0;
  }

  int nextNow(uint64_t from, uint64_t end, kest_iattr64_t *attr) override {
    if (from >= end) return 0;
    return end - from == 1 ? read(from, attr) : next(from, end - 1, attr);
  }

 private:
  int read(uint64_t ino, kest_iattr64_t *attr) {
    InodeRef inode;
    CephStat st;
    int rc = root_->isSnapshot() ? findInSnapshot(*root_, ino, &inode, &st)
                                 : openByNumber(*root_, ino, &inode, &st);
    if (rc == -ENOENT) return 0;
    if (rc == 0) rc = fillAttributes(inode, *root_, st, attr);
    return rc < 0 ? rc : 1;
  }

  int listAll() {
    std::vector<uint64_t> folders{root_->ino};
    numbers_ = folders;
    while (!folders.empty()) {
      InodeRef dir;
      CephStat st;
      const int found = root_->isSnapshot() ? findInSnapshot(*root_, folders.back(), &dir, &st)
                                            : openByNumber(*root_, folders.back(), &dir, &st);
      folders.pop_back();
      if (found == -ENOENT) continue;
      std::vector<CephEntry> entries;
      const int rc = found == 0 ? root_->client->list(dir, &entries) : found;
      if (rc < 0) return rc;
      for (const CephEntry &one : entries) {
        numbers_.push_back(one.st.stx_ino);
        if (S_ISDIR(one.st.stx_mode)) folders.push_back(one.st.stx_ino);
      }
    }
    std::sort(numbers_.begin(), numbers_.end());
    numbers_.erase(std::unique(numbers_.begin(), numbers_.end()), numbers_.end());
    return 0;
  }

  std::shared_ptr<const CephRoot> root_;
  bool listed_ = false;
  std::vector<uint64_t> numbers_;
};

}  // namespace

namespace {

// The root directory of a snapshot of the fileset, by the number of the snapshot. 0 or -errno.
int findSnapshot(const CephRoot &active, uint64_t snapid, InodeRef *inode) {
  InodeRef folder;
  CephStat st;
  if (int rc = active.client->lookUp(active.inode, kSnapFolder, &folder, &st); rc < 0) return rc;
  std::vector<CephEntry> entries;
  if (int rc = active.client->list(folder, &entries, true); rc < 0) return rc;
  for (CephEntry &one : entries) {
    if (one.st.stx_dev != snapid || !one.dir) continue;
    *inode = std::move(one.dir);
    return 0;
  }
  return -ENOENT;
}

}  // namespace

int CephTree::isWritable() const {
  if (root_->isSnapshot()) return 0;
  struct statvfs figures;
  if (fstatvfs(root_->fd.get(), &figures) < 0) return -errno;
  return (figures.f_flag & ST_RDONLY) == 0;
}

// CephFS does not divide its space into data and metadata.
int64_t CephTree::metadataRoom() const {
  struct statvfs figures;
  const int rc = ceph_ll_statfs(root_->client->mount(), root_->inode.get(), &figures);
  if (rc < 0) return rc;
  if (figures.f_blocks == 0) return INT64_MAX;  // without a manager the cluster has no figures
  return static_cast<int64_t>(figures.f_bavail * figures.f_frsize);
}

int CephTree::openInode(uint64_t ino, const char *path, std::unique_ptr<Inode> *inode) const {
  InodeRef found;
  CephStat st;
  if (path != nullptr && root_->isSnapshot() && openByPath(ino, path, inode)) return 0;
  const int rc = openByNumber(*root_, ino, &found, &st);
  if (rc == 0) *inode = std::make_unique<CephInode>(root_, std::move(found), st, nullptr, false);
  return rc;
}

// True where the path, whole or below the root, leads to the inode.
bool CephTree::openByPath(uint64_t ino, std::string_view path, std::unique_ptr<Inode> *inode) const {
  if (path.starts_with(root_->path + "/")) path.remove_prefix(root_->path.size() + 1);
  while (path.starts_with('/')) path.remove_prefix(1);
  const size_t slash = path.rfind('/');
  const size_t leaf = slash == path.npos ? 0 : slash + 1;
  std::unique_ptr<Directory> dir;
  if (openDirectory(nullptr, path.substr(0, leaf), &dir) < 0) return false;
  std::unique_ptr<Inode> found;
  if (openNamed(*dir, std::string(path.substr(leaf)), &found) < 0 || found->facts().ino != ino)
    return false;
  *inode = std::move(found);
  return true;
}

int CephTree::openSame(const Inode &other, std::unique_ptr<Inode> *inode) const {
  std::unique_ptr<Inode> found;
  if (int rc = openInode(other.facts().ino, nullptr, &found); rc < 0) return rc;
  if (((found->facts().mode ^ other.facts().mode) & S_IFMT) != 0) return -ENOENT;
  *inode = std::move(found);
  return 0;
}

int CephTree::openNamed(const Directory &dir, const std::string &name,
                        std::unique_ptr<Inode> *inode) const {
  const auto &directory = static_cast<const CephDirectory &>(dir);
  InodeRef found;
  CephStat st;
  if (int rc = directory.lookUp(name, &found, &st); rc < 0) return rc;
  const std::string path = directory.pathOf(name);
  *inode = std::make_unique<CephInode>(root_, std::move(found), st, &path);
  return 0;
}

int CephTree::createFile(const Directory &dir, const std::string &name, mode_t mode,
                         std::unique_ptr<Inode> *inode) const {
  const auto &directory = static_cast<const CephDirectory &>(dir);
  CephClient &client = *root_->client;
  if (name == kSnapFolder || name.empty() || name.find('/') != name.npos) return -EINVAL;
  ::Inode *made = nullptr;
  ::Fh *file = nullptr;
  CephStat st;
  const int rc = ceph_ll_create(client.mount(), directory.ref().get(), name.c_str(), mode,
                                O_CREAT | O_EXCL | O_RDWR | O_NOFOLLOW, &made, &file, &st,
                                CEPH_STATX_ALL_STATS, 0, client.perms());
  if (rc < 0) return rc;
  const std::string path = directory.pathOf(name);
  auto opened = std::make_unique<CephInode>(root_, InodeRef(root_->client, made), st, &path);
  opened->adopt(file);
  // An inherited ACL may have taken bits away.
  if ((st.stx_mode & 07777) != mode) {
    if (int set = opened->changeMode(mode); set < 0) return set;
  }
  *inode = std::move(opened);
  return 0;
}

int CephTree::openDirectory(const Directory *start, std::string_view path,
                            std::unique_ptr<Directory> *dir) const {
  return openDirectoryBeneath(root_, static_cast<const CephDirectory *>(start), path, dir);
}

int CephTree::duplicateDirectory(int fd, std::unique_ptr<Directory> *dir) const {
  struct stat st;
  if (fstat(fd, &st) != 0) return -errno;
  if (st.st_dev != root_->device) return -EXDEV;
  if (!S_ISDIR(st.st_mode)) return -ENOTDIR;
  InodeRef found;
  CephStat status;
  const int rc = openByNumber(*root_, st.st_ino, &found, &status);
  if (rc == -ENOENT) return -EXDEV;
  if (rc < 0) return rc;
  InodeNames names;
  if (int named = findNamesOf(*root_, st.st_ino, &names); named < 0) return named;
  *dir = std::make_unique<CephDirectory>(root_, std::move(found),
                                         names.paths.empty() ? "" : names.paths.front());
  return 0;
}

int CephTree::findNames(uint64_t ino, InodeNames *names) const {
  return findNamesOf(*root_, ino, names);
}

// Numbers are handed out to clients in advance, so they say nothing about age.
int CephTree::isYounger(uint64_t ino, uint64_t than) const {
  InodeRef one, other;
  CephStat st, st_than;
  if (int rc = openByNumber(*root_, ino, &one, &st); rc < 0) return rc == -ENOENT ? 0 : rc;
  if (int rc = openByNumber(*root_, than, &other, &st_than); rc < 0) return rc;
  const struct timespec &made = st.stx_btime, &made_than = st_than.stx_btime;
  return made.tv_sec != made_than.tv_sec ? made.tv_sec > made_than.tv_sec
                                         : made.tv_nsec > made_than.tv_nsec;
}

std::unique_ptr<InodeScan> CephTree::openScan() const {
  return std::make_unique<CephScan>(root_);
}

int CephTree::openDifference(uint64_t snapshot_id, std::unique_ptr<Difference> *difference) const {
  InodeRef inode;
  const int rc = root_->isSnapshot() ? -ENOENT : findSnapshot(*root_, snapshot_id, &inode);
  if (rc == -ESTALE || rc == -ENOENT || rc == -EINVAL)
    return failWith(EINVAL,
                    "there is no snapshot " + std::to_string(snapshot_id) + " of " + root_->path);
  if (rc < 0) return rc;
  auto then = std::make_shared<CephRoot>();
  then->client = root_->client;
  then->inode = std::move(inode);
  then->ino = root_->ino;
  then->snapid = snapshot_id;
  then->device = root_->device;
  then->default_layout = root_->default_layout;
  *difference = std::make_unique<CephDifference>(root_, std::move(then));
  return 0;
}

int CephTree::largestInode(const uint64_t *, uint64_t *ino) const {
  *ino = kLargestInode;
  return 0;
}

// The steps of a restore do not go through a mount here, so no mount can be in the way.
int CephTree::findMountInTheWay(const Tree &, const Difference &, std::string *) const {
  return 0;
}

int CephTree::findObstacles(const Tree &snapshot, Difference *difference,
                            const ObstacleVisitor &visit) const {
  return kest::findObstacles(*root_, *static_cast<const CephTree &>(snapshot).root(), difference,
                             visit);
}

int CephTree::fileSurvives(const Tree &snapshot, const char *path) const {
  struct stat st;
  if (::stat(path, &st) != 0) return -errno;
  if (st.st_dev != root_->device) return 1;
  const std::unique_ptr<char, decltype(&free)> resolved(realpath(path, nullptr), free);
  if (resolved == nullptr) return -errno;
  std::string below = resolved.get();
  const std::string root = root_->path == "/" ? "/" : root_->path + "/";
  if (!below.starts_with(root)) return 1;
  below.erase(0, root.size());
  const size_t slash = below.rfind('/');
  const std::string folder = slash == below.npos ? "" : below.substr(0, slash);
  const std::string name = below.substr(slash == below.npos ? 0 : slash + 1);
  const auto find = [&](const Tree &tree, CephStat *found) {
    std::unique_ptr<Directory> dir;
    InodeRef inode;
    const int rc = tree.openDirectory(nullptr, folder, &dir);
    return rc < 0 ? rc : static_cast<CephDirectory &>(*dir).lookUp(name, &inode, found);
  };
  CephStat now, then;
  if (int rc = find(*this, &now); rc < 0) return rc;
  const int rc = find(snapshot, &then);
  if (rc == -ENOENT || rc == -ENOTDIR || rc == -ELOOP) return 0;
  if (rc < 0) return rc;
  return now.stx_ino == then.stx_ino && now.stx_size == then.stx_size &&
         now.stx_mtime.tv_sec == then.stx_mtime.tv_sec &&
         now.stx_mtime.tv_nsec == then.stx_mtime.tv_nsec && now.stx_mode == then.stx_mode;
}

}  // namespace kest
