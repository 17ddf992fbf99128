#include "object/clone_origin.h"

#include <cerrno>
#include <map>

#include "cfgmgr/messages.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/snapshot_table.h"
#include "run/trace_log.h"

namespace {

kest_fssnap_handle_t *openSnapshot(uint32_t id) {
  const SnapshotTable &table = snapshotTable();
  const auto found = table.find(id);
  if (found == table.end()) {
    errno = ENOENT;
    return nullptr;
  }
  const auto open = [](const std::string &name) {
    return kest_get_fset_snaphandle_by_name(settings.deviceP.c_str(), settings.filesetP.c_str(),
                                            name.c_str());
  };
  kest_fssnap_handle_t *handle = open(found->second);
  const int err = errno;
  // Directories are judged by the snapshot that was named last: that is the run's own again.
  if (handle != nullptr) kest_free_fssnaphandle(open(settings.snapOldP));
  errno = err;
  return handle;
}

bool isParentOfDepth(kest_fssnap_handle_t *tree, uint64_t ino, int depth) {
  Inode parent = openInode(tree, ino);
  CloneAttr attr;
  return parent && isClone(parent.get(), &attr, nullptr) && attr.isParent() && attr.depth() == depth;
}

}  // namespace

kest_fssnap_handle_t *otherSnapshot(uint32_t id) {
  static std::map<uint32_t, kest_fssnap_handle_t *> open;
  const auto known = open.find(id);
  if (known != open.end()) {
    if (known->second == nullptr) errno = ENOENT;
    return known->second;
  }
  kest_fssnap_handle_t *handle = openSnapshot(id);
  open[id] = handle;
  return handle;
}

bool restoredFromData(const std::string &path, const CloneAttr &attr, const CloneSnapAttr &snap) {
  if (attr.depth() == 0) return true;
  const uint64_t parent = attr.parentIno();
  if (!attr.parentInSnapshot()) return !isParentOfDepth(handles.oldFsP, parent, attr.depth() - 1);
  kest_fssnap_handle_t *tree = otherSnapshot(snap.snapId());
  if (tree != nullptr && isParentOfDepth(tree, parent, attr.depth() - 1)) return false;
  traceLog("clone %s: the parent %lld is not in snapshot %u\n", path.c_str(),
           static_cast<long long>(parent), snap.snapId());
  if (settings.phase == kPhaseMaster)
    userMessage(Message::kCloneParentGone, path, static_cast<int64_t>(snap.snapId()));
  return true;
}
