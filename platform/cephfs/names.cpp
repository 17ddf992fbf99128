#include "cephfs/names.h"

#include <sys/stat.h>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace kest {

namespace {

constexpr uint64_t kTop = 1;          // inode number of the root of a file system
constexpr int kMostLevels = 100'000;  // a climb might never end while directories are being moved

// The parent of an active directory. 0 or -errno.
int parentOf(CephClient &client, const InodeRef &dir, InodeRef *parent, CephStat *st) {
  return client.lookUp(dir, "..", parent, st);
}

// Walks a tree by depth, by names from its root. visit(path of an entry, entry, its directory) returns
// 0 to go on.
template <typename Visit>
int walk(const CephRoot &root, Visit visit) {
  struct Folder {
    InodeRef dir;
    std::string path;
  };
  std::vector<Folder> folders;
  folders.push_back({root.inode.another(), ""});
  while (!folders.empty()) {
    const Folder folder = std::move(folders.back());
    folders.pop_back();
    std::vector<CephEntry> entries;
    int rc = folder.dir ? root.client->list(folder.dir, &entries, true) : -ENOENT;
    // An active directory may be gone by now.
    if (!root.isSnapshot() && (rc == -ESTALE || rc == -ENOENT)) continue;
    if (rc < 0) return rc;
    for (CephEntry &one : entries) {
      std::string path = folder.path.empty() ? one.name : folder.path + "/" + one.name;
      rc = visit(path, one, folder.dir);
      if (rc != 0) return rc;
      if (one.dir) folders.push_back({std::move(one.dir), std::move(path)});
    }
  }
  return 0;
}

// The names of all inodes of a snapshot that have several names. One walk over the snapshot finds them.
struct LinkIndex {
  std::mutex mutex;
  std::map<std::pair<uint64_t, uint64_t>, std::multimap<uint64_t, std::string>>
      trees;  // by root, snapshot
};
LinkIndex link_index;

int namesOfLinked(const CephRoot &root, uint64_t ino, InodeNames *names) {
  std::lock_guard lock(link_index.mutex);
  const auto key = std::make_pair(root.ino, root.snapid);
  auto known = link_index.trees.find(key);
  if (known == link_index.trees.end()) {
    std::multimap<uint64_t, std::string> found;
    const int rc = walk(root, [&](const std::string &path, const CephEntry &one, const InodeRef &) {
      if (!S_ISDIR(one.st.stx_mode) && one.st.stx_nlink > 1) found.emplace(one.st.stx_ino, path);
      return 0;
    });
    if (rc < 0) return rc;
    known = link_index.trees.emplace(key, std::move(found)).first;
  }
  const auto [first, last] = known->second.equal_range(ino);
  for (auto one = first; one != last; ++one) names->paths.push_back(one->second);
  return names->paths.empty() ? 0 : 1;
}

// Climbs from the directory `ino` to the directory `end`. `path`, unless NULL, receives the path below
// `end`. 1; 0: `ino` does not lie below `end`; or -errno.
int climb(CephClient &client, uint64_t ino, uint64_t end, std::string *path) {
  InodeRef dir;
  CephStat st;
  int rc = client.byNumber(ino, kActive, &dir, &st);
  if (rc == -ESTALE || rc == -ENOENT) return 0;
  if (path != nullptr) path->clear();
  for (int level = 0; rc == 0 && st.stx_ino != end; ++level) {
    if (st.stx_ino == kTop || !S_ISDIR(st.stx_mode) || st.stx_nlink == 0) return 0;
    if (level == kMostLevels) return -ELOOP;
    const uint64_t child = st.stx_ino;
    InodeRef parent;
    rc = parentOf(client, dir, &parent, &st);
    if (rc == -ENOENT || rc == -ESTALE) return 0;
    if (rc < 0) return rc;
    if (st.stx_ino == child) return 0;
    if (path != nullptr) {
      std::vector<CephEntry> entries;
      rc = client.list(parent, &entries);
      const std::string *name = nullptr;
      for (const CephEntry &one : entries)
        if (one.st.stx_ino == child) name = &one.name;
      if (rc == 0 && name == nullptr) return 0;
      if (rc == 0) *path = path->empty() ? *name : *name + "/" + *path;
    }
    dir = std::move(parent);
  }
  return rc < 0 ? rc : 1;
}

}  // namespace

int findNamesOf(const CephRoot &root, uint64_t ino, InodeNames *names) {
  *names = {};
  if (ino == root.ino) {
    names->paths.emplace_back();
    return 1;
  }
  if (!root.isSnapshot()) {
    InodeRef inode;
    CephStat st;
    int rc = root.client->byNumber(ino, kActive, &inode, &st);
    if (rc == -ESTALE || rc == -ENOENT) return 0;
    if (rc < 0) return rc;
    if (S_ISDIR(st.stx_mode)) {
      std::string path;
      rc = climb(*root.client, ino, root.ino, &path);
      if (rc > 0) names->paths.push_back(std::move(path));
      return rc;
    }
  }
  if (root.isSnapshot()) {
    InodeRef inode;
    CephStat st;
    const int found = root.client->byNumber(ino, root.snapid, &inode, &st);
    if (found == 0 && !S_ISDIR(st.stx_mode) && st.stx_nlink > 1) return namesOfLinked(root, ino, names);
  }
  uint64_t links = 0;
  const int rc = walk(root, [&](const std::string &path, const CephEntry &one, const InodeRef &) {
    if (one.st.stx_ino != ino) return 0;
    names->paths.push_back(path);
    links = S_ISDIR(one.st.stx_mode) ? 1 : one.st.stx_nlink;
    return names->paths.size() >= links ? 1 : 0;
  });
  if (rc < 0) return rc;
  return names->paths.empty() ? 0 : 1;
}

int findInSnapshot(const CephRoot &root, uint64_t ino, InodeRef *inode, CephStat *st) {
  CephClient &client = *root.client;
  if (ino == root.ino) {
    *inode = root.inode.another();
    return *inode ? client.readStat(*inode, st) : -ENOENT;
  }
  SnapshotPlace place;
  if (client.placeInSnapshot(root.snapid, ino, &place)) {
    InodeRef parent;
    const int rc = findInSnapshot(root, place.parent, &parent, st);
    return rc < 0 ? rc : client.lookUp(parent, place.name, inode, st);
  }
  const int rc = walk(root, [&](const std::string &, const CephEntry &one, const InodeRef &dir) {
    if (one.st.stx_ino != ino) return 0;
    const int found = client.lookUp(dir, one.name, inode, st);
    return found < 0 ? found : 1;
  });
  return rc == 0 ? -ENOENT : rc < 0 ? rc : 0;
}

int64_t timeOfSnapshot(const InodeRef &snapshot) {
  std::string text;
  if (snapshot.client()->readXattr(snapshot, "ceph.snap.btime", &text) < 0) return 0;
  return strtoll(text.c_str(), nullptr, 10);
}

int pathOfDirectory(const std::shared_ptr<CephClient> &client, uint64_t ino, std::string *path) {
  const int rc = climb(*client, ino, kTop, path);
  return rc < 0 ? rc : rc == 0 ? -ENOENT : 0;
}

int liesInFileset(const CephRoot &root, uint64_t ino) {
  return climb(*root.client, ino, root.ino, nullptr);
}

int openByNumber(const CephRoot &root, uint64_t ino, InodeRef *inode, CephStat *st) {
  if (ino == 0) return -ENOENT;
  int rc = root.client->byNumber(ino, root.snapid, inode, st);
  if (rc == -EINVAL || rc == -ENOENT) rc = -ESTALE;
  if (rc == -ESTALE && root.isSnapshot()) rc = findInSnapshot(root, ino, inode, st);
  if (rc == -ESTALE) return -ENOENT;
  if (rc < 0) return rc;
  if (st->stx_nlink == 0) return -ENOENT;
  // A directory that was moved out of the fileset no longer belongs to it.
  if (!root.isSnapshot() && S_ISDIR(st->stx_mode)) {
    const int inside = liesInFileset(root, ino);
    if (inside <= 0) return inside < 0 ? inside : -ENOENT;
  }
  return 0;
}

}  // namespace kest
