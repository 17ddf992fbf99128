#include "cephfs/file_system.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/fd_path.h"
#include "cephfs/names.h"
#include "cephfs/tree.h"
#include "filesystem/blob_format.h"
#include "filesystem/error_text.h"
#include "filesystem/mount_table.h"

namespace kest {

namespace {

constexpr size_t kFewNames = 12;

std::string trimSlashes(std::string text) {
  while (!text.empty() && text.front() == '/') text.erase(0, 1);
  while (!text.empty() && text.back() == '/') text.pop_back();
  return text;
}

std::string display(const std::string &path) {
  return path.empty() ? "/" : path;
}

std::string below(const std::string &folder, const std::string &name) {
  if (name.empty()) return folder;
  return folder + "/" + name;
}

// A snapshot of a directory above appears here as _NAME_NUMBER; no other name may begin in this way.
bool isFromAbove(const std::string &name) {
  return name.starts_with('_');
}

// Returns a text for users about where the snapshot is that appears here as `name`; "" if unknown.
std::string placeOfSnapshotAbove(const std::shared_ptr<CephClient> &client, const std::string &name) {
  const size_t underscore = name.rfind('_');
  std::string path;
  const uint64_t ino = strtoull(name.c_str() + underscore + 1, nullptr, 10);
  if (underscore == 0 || ino == 0 || pathOfDirectory(client, ino, &path) < 0) return "";
  return ": it is " + name.substr(1, underscore - 1) + " of the directory " + display(path);
}

// Returns true if the mount shows the directory `dir` at `fd`. Somebody may change the directory
// between the two readings, so they are repeated. A client that has taken a snapshot of the directory
// shows the earlier change time until it has to ask the server for something, so ask for an attribute.
bool isShownAt(int fd, CephClient &client, const InodeRef &dir) {
  constexpr int kLooks = 5;
  for (int look = 0; look < kLooks; ++look) {
    struct stat shown;
    CephStat known;
    char asked[64];
    if (getxattr(FdPath(fd).get(), "ceph.dir.rctime", asked, sizeof asked) < 0) asked[0] = '\0';
    if (fstat(fd, &shown) != 0 || client.readStat(dir, &known) != 0) return false;
    if (shown.st_ino != known.stx_ino) return false;
    if (shown.st_ctim.tv_sec == known.stx_ctime.tv_sec &&
        shown.st_ctim.tv_nsec == known.stx_ctime.tv_nsec)
      return true;
    usleep(100000);
  }
  return false;
}

// Reads the layout that files have by default.
int readDefaultLayout(CephClient &client, std::string *layout) {
  InodeRef top;
  CephStat st;
  int rc = client.root(&top, &st);
  if (rc == 0) rc = client.readXattr(top, kDirLayout, layout);
  if (rc != -ENODATA) return rc;
  char pool[256];
  rc = ceph_get_default_data_pool_name(client.mount(), pool, sizeof pool);
  if (rc < 0) return rc;
  *layout = "stripe_unit=4194304 stripe_count=1 object_size=4194304 pool=" +
            std::string(pool, static_cast<size_t>(rc));
  return 0;
}

bool isCephType(const std::string &type) {
  return type == "ceph" || type == "fuse.ceph-fuse" || type == "fuse.ceph";
}

// The value of an option in a list that commas divide.
std::string optionValue(const std::string &options, const std::string &key) {
  const std::string list = "," + options + ",";
  const size_t at = list.find("," + key + "=");
  if (at == list.npos) return "";
  const size_t start = at + key.size() + 2;
  return list.substr(start, list.find(',', start) - start);
}

}  // namespace

ClusterAccess accessOfMount(const std::string &type, const std::string &source,
                            const std::string &options, std::string *shown) {
  ClusterAccess access;
  shown->clear();
  if (const char *file = getenv("CEPH_CONF"); file != nullptr) access.configuration = file;
  if (type != "ceph") return access;
  // <monitors>:<path>, or <user>@<cluster>.<file system>=<path>.
  const size_t at = source.find('@'), equals = source.find('=');
  if (at != source.npos && equals != source.npos && equals > at) {
    access.user = source.substr(0, at);
    const std::string where = source.substr(at + 1, equals - at - 1);
    access.file_system = where.substr(where.find('.') + 1);
    *shown = trimSlashes(source.substr(equals + 1));
    access.monitors = optionValue(options, "mon_addr");
    std::replace(access.monitors.begin(), access.monitors.end(), '/', ',');
    return access;
  }
  const size_t path = source.find(":/");
  access.monitors = source.substr(0, path);
  if (path != source.npos) *shown = trimSlashes(source.substr(path + 1));
  access.user = optionValue(options, "name");
  access.file_system = optionValue(options, "mds_namespace");
  if (access.file_system.empty()) access.file_system = optionValue(options, "fs");
  return access;
}

// Finds the directory of a fileset. Every component of its path must be a directory, not a link.
int CephFileSystem::findDirectory(const std::string &fileset, std::string *path, InodeRef *dir,
                                  CephStat *st) const {
  *path = trimSlashes(fileset);
  int rc = client_->root(dir, st);
  std::string rest = *path;
  while (rc == 0 && !rest.empty()) {
    const std::string name = rest.substr(0, rest.find('/'));
    rest.erase(0, std::min(rest.size(), name.size() + 1));
    if (name.empty() || name == "." || name == ".." || name == kSnapFolder) return -ENOENT;
    InodeRef next;
    rc = client_->lookUp(*dir, name, &next, st);
    if (rc == 0 && !S_ISDIR(st->stx_mode)) rc = -ENOENT;
    if (rc == 0) *dir = std::move(next);
  }
  return rc;
}

// Returns true, and the path through the mount, if that shows the directory `path` of the file system.
bool CephFileSystem::shownAt(const std::string &path, std::string *shown) const {
  if (mount_.shown.empty()) {
    *shown = below(mount_.point, path);
  } else if (path == mount_.shown) {
    *shown = mount_.point;
  } else if (path.starts_with(mount_.shown + "/")) {
    *shown = below(mount_.point, path.substr(mount_.shown.size() + 1));
  } else {
    return false;
  }
  if (shown->empty()) *shown = "/";
  return true;
}

int CephFileSystem::openTree(const char *fileset_name, const char *snapshot_name,
                             std::unique_ptr<Tree> *tree) const {
  auto root = std::make_shared<CephRoot>();
  std::string path;
  CephStat st;
  int rc = findDirectory(fileset_name, &path, &root->inode, &st);
  if (rc == -ENOENT || *fileset_name == '\0')
    return failWith(ENOENT, "no directory " + display(path) + " in the file system of " + device_);
  if (rc < 0) return failWith(-rc, display(path) + ": " + strerror(-rc));
  root->client = client_;
  root->ino = st.stx_ino;
  root->device = mount_.device;
  if (!shownAt(path, &root->path))
    return failWith(ENXIO, "no mount shows " + display(path) + " of the file system of " + device_);
  if (snapshot_name != nullptr) {
    const std::string name = trimSlashes(snapshot_name);
    if (isFromAbove(name))
      return failWith(EINVAL, name + " is no snapshot of " + display(path) + " alone" +
                                  placeOfSnapshotAbove(client_, name) +
                                  "; name that one as the fileset");
    InodeRef folder, found;
    rc = client_->lookUp(root->inode, kSnapFolder, &folder, &st);
    if (rc < 0) return failWith(-rc, display(path) + ": snapshots: " + strerror(-rc));
    rc = name.empty() || name.find('/') != name.npos ? -ENOENT
                                                     : client_->lookUp(folder, name, &found, &st);
    if (rc == -ENOENT) {
      std::string text = "fileset " + display(path) + " has no snapshot " + snapshot_name;
      std::vector<CephEntry> entries;
      const int listed = client_->list(folder, &entries);
      std::erase_if(entries, [](const CephEntry &one) { return isFromAbove(one.name); });
      if (listed == 0 && !entries.empty() && entries.size() <= kFewNames) {
        const char *before = "; there are ";
        for (const CephEntry &one : entries) {
          text += before + one.name;
          before = ", ";
        }
      }
      return failWith(ENOENT, text);
    }
    if (rc < 0) return failWith(-rc, std::string(snapshot_name) + ": " + strerror(-rc));
    root->inode = std::move(found);
    root->snapid = st.stx_dev;
    root->path = below(root->path == "/" ? "" : root->path, kSnapFolder) + "/" + name;
  }
  root->fd.reset(open(root->path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!root->fd) return failWith(errno, root->path + ": " + strerror(errno));
  // A cluster can have several file systems, and the numbers of their directories can be equal.
  if (!root->isSnapshot() && !isShownAt(root->fd.get(), *client_, root->inode))
    return failWith(ENODEV, root->path + " is not of the file system that the configuration names");
  if (rc = readDefaultLayout(*client_, &root->default_layout); rc < 0) return rc;
  *tree = std::make_unique<CephTree>(std::move(root));
  return 0;
}

int CephFileSystem::commit() const {
  return client_->settle();
}

int CephFileSystem::listSnapshots(const std::string &fileset, std::string *path,
                                  std::vector<SnapshotInfo> *snapshots) const {
  InodeRef dir, folder;
  CephStat st;
  setErrorText(fileset);
  int rc = findDirectory(fileset, path, &dir, &st);
  if (rc == 0) rc = client_->lookUp(dir, kSnapFolder, &folder, &st);
  std::vector<CephEntry> entries;
  if (rc == 0) rc = client_->list(folder, &entries);
  if (rc < 0) return rc;
  for (const CephEntry &one : entries) {
    if (isFromAbove(one.name)) continue;
    InodeRef snapshot;
    rc = client_->lookUp(folder, one.name, &snapshot, &st);
    if (rc == -ENOENT) continue;  // deleted a moment ago
    if (rc < 0) return failWith(-rc, one.name);
    snapshots->push_back({st.stx_dev, one.name, timeOfSnapshot(snapshot), true});
  }
  std::sort(snapshots->begin(), snapshots->end(),
            [](const SnapshotInfo &a, const SnapshotInfo &b) { return a.id < b.id; });
  return 0;
}

int CephFileSystem::describeFileset(const std::string &fileset, FilesetInfo *info) const {
  std::vector<SnapshotInfo> snapshots;
  InodeRef dir;
  CephStat st;
  int rc = listSnapshots(fileset, &info->path, &snapshots);
  if (rc == 0) rc = findDirectory(fileset, &info->path, &dir, &st);
  if (rc < 0) return rc;
  info->file_system = client_->fsid();
  info->name = info->path.substr(info->path.rfind('/') + 1);
  info->id = info->root_ino = st.stx_ino;
  info->created = st.stx_btime.tv_sec;
  info->snapshots = snapshots.size();
  info->mounted = shownAt(info->path, &info->mounted_at);
  if (info->mounted_at == "/") info->mounted_at.clear();
  return 0;
}

int CephFileSystem::unlinkFileset(const std::string &path, std::string *) const {
  return failWith(ENOTSUP, path + ": this file system has no nested filesets");
}

int openCephFs(const std::string &device, std::unique_ptr<FileSystem> *fs) {
  struct stat st;
  if (stat(device.c_str(), &st) != 0) return -errno;
  std::vector<Mount> mounts;
  if (int rc = readMounts(&mounts); rc < 0) return rc;
  const Mount *found = nullptr;
  struct stat shown {};
  for (const Mount &one : mounts) {
    if (!isCephType(one.type) || makedev(one.major_no, one.minor_no) != st.st_dev) continue;
    // A mount point that is hidden below another mount does not lead to the file system.
    if (stat(one.point.c_str(), &shown) == 0 && shown.st_dev == st.st_dev) {
      found = &one;
      break;
    }
  }
  if (found == nullptr) return -ENODEV;
  CephMount mount;
  mount.device = st.st_dev;
  mount.point = found->point == "/" ? "" : found->point;
  const ClusterAccess access =
      accessOfMount(found->type, found->source, found->super_options, &mount.shown);
  std::shared_ptr<CephClient> client;
  int rc = CephClient::open(access, &client);
  if (rc < 0)
    return failWith(-rc, "cannot reach the cluster of " + device +
                             (access.configuration.empty() ? "" : " by " + access.configuration) +
                             ": " + strerror(-rc));
  char fsid[64];
  const ssize_t length = getxattr(found->point.c_str(), "ceph.cluster_fsid", fsid, sizeof fsid);
  if (length > 0 && client->fsid() != std::string_view(fsid, static_cast<size_t>(length)))
    return failWith(ENODEV, "the configuration" +
                                (access.configuration.empty() ? "" : " " + access.configuration) +
                                " is not that of the cluster of " + device);
  // The source of a FUSE mount does not name the directory that it shows; its inode number does.
  rc = pathOfDirectory(client, shown.st_ino, &mount.shown);
  if (rc < 0) return failWith(-rc, found->point + ": " + strerror(-rc));
  *fs = std::make_unique<CephFileSystem>(std::move(client), std::move(mount), device);
  return 0;
}

}  // namespace kest
