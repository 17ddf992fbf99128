#include "worker/clone_parent.h"

#include <sys/stat.h>

#include <cerrno>
#include <map>
#include <utility>
#include <vector>

#include "object/clones.h"
#include "object/paths.h"
#include "run/settings.h"
#include "run/snapshot_table.h"
#include "run/trace_log.h"
#include "scan/same_file.h"

namespace {

enum ParentStep : int {
  kFindSnapshot = 1,
  kOpenSnapshot = 2,
  kSnapshotRoot = 4,
  kLookUpPaths = 5,  // also of the active fileset's root
  kOpenParent = 6,   // also if there is no parent
};

struct SearchTree {
  kest_fssnap_handle_t *handle = nullptr;
  std::string root;
};

Result chooseTree(uint32_t snapId, SearchTree *tree) {
  if (snapId == 0) {
    if (handles.rootPath.empty()) return failed(kLookUpPaths, ENOENT);
    *tree = {handles.activeFsP, handles.rootPath};
    return {};
  }
  const SnapshotTable &snapshots = snapshotTable();
  const auto snapshot = snapshots.find(snapId);
  if (snapshot == snapshots.end()) {
    traceLog("getParentPath: cannot find parent snapshot, snapId %u\n", snapId);
    return failed(kFindSnapshot, ENOENT);
  }
  if (Result r = otherSnapshot(snapId, &tree->handle); !r) {
    traceLog("getParentPath: cannot get parent snapshot handle, deviceP %s, filesetP %s, snapName %s\n",
             settings.deviceP.c_str(), settings.filesetP.c_str(), snapshot->second.c_str());
    return failed(kOpenSnapshot, r.err);
  }
  const char *root = kest_get_pathname_from_fssnaphandle(tree->handle);
  if (root == nullptr) return failed(kSnapshotRoot);
  tree->root = root;
  return {};
}

bool isStillAt(const std::string &path, kest_fssnap_handle_t *handle, uint64_t ino) {
  struct stat st;
  return kest_lstat(handle, path.c_str(), &st) == 0 && st.st_ino == ino;
}

Result lookUp(uint64_t ino, uint32_t snapId, const SearchTree &tree, std::string *path) {
  static std::map<std::pair<uint32_t, uint64_t>, std::string> known;
  std::string &last = known[{snapId, ino}];
  if (!last.empty() && isStillAt(last, tree.handle, ino)) {
    *path = last;
    return {};
  }
  std::vector<std::string> paths;
  if (Result r = findInodePaths(tree.handle, ino, tree.root, &paths); !r) {
    traceLog(r.err == ENOENT ? "getParentPath: cannot get parent path, ino %lld\n"
                             : "getParentPath: cannot find parent path, ino %lld\n",
             static_cast<long long>(ino));
    return failed(r.err == ENOENT ? kOpenParent : kLookUpPaths, r.err);
  }
  *path = last = paths.front();
  return {};
}

// Finds the present number of the parent: the new one if a run has made it again, else its own if that
// is still the snapshot's file. ENOENT if it is another file now.
Result currentNumber(uint64_t parent, uint64_t *now) {
  if (Result r = readNewParent(parent, now); !r || *now != 0) return r;
  *now = parent;
  FileKind kind = kKindSame;
  if (Result r = checkFile(parent, &kind); !r) return r;
  return errnoResult(kind == kKindSame ? 0 : ENOENT);
}

Result find(uint64_t parent, uint32_t snapId, std::string *path, Inode *file) {
  SearchTree tree;
  if (Result r = chooseTree(snapId, &tree); !r) return r;
  uint64_t now = parent;
  if (snapId == 0) {
    if (Result r = currentNumber(parent, &now); !r) {
      traceLog("getParentPath: cannot get parent path, ino %lld\n", static_cast<long long>(parent));
      return failed(kOpenParent, r.err);
    }
  }
  if (Result r = lookUp(now, snapId, tree, path); !r) return r;
  if (Result r = openInode(tree.handle, now, file); !r) return failed(kOpenParent, r.err);
  return {};
}

}  // namespace

Result getParentPath(uint64_t parent, uint32_t snapId, std::string *path, Inode *file) {
  const Result result = find(parent, snapId, path, file);
  if (!result) {
    traceLog("getParentPath: ino %lld, snapId %d, rc %d, code %d, err %d\n",
             static_cast<long long>(parent), static_cast<int>(snapId), result.rc, result.code,
             result.err);
  }
  return result;
}
