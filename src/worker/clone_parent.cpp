#include "worker/clone_parent.h"

#include <cerrno>
#include <map>
#include <vector>

#include "object/clone_origin.h"
#include "object/path_files.h"
#include "object/step.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/snapshot_table.h"
#include "run/trace_log.h"
#include "scan/same_file.h"
#include "worker/inode_paths.h"

namespace {

struct SearchTree {
  kest_fssnap_handle_t *handle = nullptr;
  std::string root;
};

Step chooseTree(uint32_t snapId, SearchTree *tree) {
  if (snapId == 0) {
    if (handles.rootPath.empty()) return failedStep(5, ENOENT);
    *tree = {handles.activeFsP, handles.rootPath};
    return {};
  }
  const SnapshotTable &snapshots = snapshotTable();
  const auto snapshot = snapshots.find(snapId);
  if (snapshot == snapshots.end()) {
    traceLog("getParentPath: cannot find parent snapshot, snapId %u\n", snapId);
    return failedStep(1, ENOENT);
  }
  tree->handle = otherSnapshot(snapId);
  if (tree->handle == nullptr) {
    const int err = errno;
    traceLog("getParentPath: cannot get parent snapshot handle, deviceP %s, filesetP %s, snapName %s\n",
             settings.deviceP.c_str(), settings.filesetP.c_str(), snapshot->second.c_str());
    return failedStep(2, err);
  }
  const char *root = kest_get_pathname_from_fssnaphandle(tree->handle);
  if (root == nullptr) return failedStep(4, errno);
  tree->root = root;
  return {};
}

bool stillThere(const std::string &path, kest_fssnap_handle_t *handle, uint64_t ino) {
  struct stat st;
  return kest_lstat(handle, path.c_str(), &st) == 0 && st.st_ino == ino;
}

Step lookUp(uint64_t ino, uint32_t snapId, const SearchTree &tree, std::string *path) {
  static std::map<std::pair<uint32_t, uint64_t>, std::string> known;
  std::string &place = known[{snapId, ino}];
  if (!place.empty() && stillThere(place, tree.handle, ino)) {
    *path = place;
    return {};
  }
  std::vector<std::string> paths;
  if (findInodePaths(tree.handle, ino, tree.root, &paths) != 0) {
    const int err = errno;
    traceLog(err == ENOENT ? "getParentPath: cannot get parent path, ino %lld\n"
                           : "getParentPath: cannot find parent path, ino %lld\n",
             static_cast<long long>(ino));
    return failedStep(err == ENOENT ? 6 : 5, err);
  }
  *path = place = paths.front();
  return {};
}

Step find(uint64_t parent, uint32_t snapId, std::string *path, Inode *file) {
  SearchTree tree;
  if (Step step = chooseTree(snapId, &tree); !step) return step;
  uint64_t now = parent;
  const int recorded = snapId == 0 ? readNewParent(parent, &now) : 1;
  const int kind = recorded == 0 ? checkFile(parent) : kKindSame;
  if (recorded < 0 || kind != kKindSame) {
    const int err = recorded < 0 || kind < 0 ? errno : ENOENT;
    traceLog("getParentPath: cannot get parent path, ino %lld\n", static_cast<long long>(parent));
    return failedStep(6, err);
  }
  if (Step step = lookUp(now, snapId, tree, path); !step) return step;
  *file = openInode(tree.handle, now);
  return *file ? Step{} : failedStep(6, errno);
}

}  // namespace

int getParentPath(uint64_t parent, uint32_t snapId, std::string *path, Inode *file) {
  const Step step = find(parent, snapId, path, file);
  if (step) return 0;
  traceLog("getParentPath: ino %lld, snapId %d, rc %d, code %d, err %d\n",
           static_cast<long long>(parent), static_cast<int>(snapId), step.rc, step.code, step.err);
  errno = step.err;
  return step.rc;
}
