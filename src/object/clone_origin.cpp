#include "object/clone_origin.h"

#include <cerrno>
#include <map>
#include <memory>

#include "cfgmgr/messages.h"
#include "run/fatal_error.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/snapshot_table.h"
#include "run/trace_log.h"

namespace {

struct HandleCloser {
  void operator()(kest_fssnap_handle_t *handle) const { kest_free_fssnaphandle(handle); }
};
using SnapshotHandle = std::unique_ptr<kest_fssnap_handle_t, HandleCloser>;

kest_fssnap_handle_t *openSnapshot(uint32_t id) {
  const SnapshotTable &table = snapshotTable();
  const auto found = table.find(id);
  if (found == table.end()) {
    errno = table.empty() ? EIO : ENOENT;  // the run's own snapshot is in every table
    return nullptr;
  }
  const auto open = [](const std::string &name) {
    return kest_get_fset_snaphandle_by_name(settings.deviceP.c_str(), settings.filesetP.c_str(),
                                            name.c_str());
  };
  kest_fssnap_handle_t *handle = open(found->second);
  const int err = errno;
  if (handle == nullptr) return nullptr;
  // Directories are judged by the snapshot that was named last: that is the run's own again.
  kest_fssnap_handle_t *own = open(settings.snapOldP);
  if (own == nullptr) {
    const int own_err = errno;
    kest_free_fssnaphandle(handle);
    errno = own_err;
    return nullptr;
  }
  kest_free_fssnaphandle(own);
  errno = err;
  return handle;
}

// A clone would be restored as an ordinary file for want of a parent that is there: the run must not
// end well.
void parentUnknown(uint64_t ino, int err) {
  traceLog("clone parent %lld: cannot be looked for, err %d\n", static_cast<long long>(ino), err);
  setFatalError(err);
}

bool isParentOfDepth(kest_fssnap_handle_t *tree, uint64_t ino, int depth) {
  Inode parent = openInode(tree, ino);
  if (!parent && errno != ENOENT) parentUnknown(ino, errno);
  CloneAttr attr;
  return parent && isClone(parent.get(), &attr, nullptr) && attr.isParent() && attr.depth() == depth;
}

}  // namespace

kest_fssnap_handle_t *otherSnapshot(uint32_t id) {
  struct Opened {
    SnapshotHandle handle;
    int err = 0;  // why there is none
  };
  static std::map<uint32_t, Opened> open;
  auto known = open.find(id);
  if (known == open.end()) {
    SnapshotHandle handle(openSnapshot(id));
    const int err = handle ? 0 : errno;
    known = open.emplace(id, Opened{std::move(handle), err}).first;
  }
  if (known->second.err != 0) errno = known->second.err;
  return known->second.handle.get();
}

bool restoredFromData(const std::string &path, const CloneAttr &attr, const CloneSnapAttr &snap) {
  if (attr.depth() == 0) return true;
  const uint64_t parent = attr.parentIno();
  if (!attr.parentInSnapshot()) return !isParentOfDepth(handles.oldFsP, parent, attr.depth() - 1);
  kest_fssnap_handle_t *tree = otherSnapshot(snap.snapId());
  // EINVAL: the name is another fileset's now.
  if (tree == nullptr && errno != ENOENT && errno != EINVAL) parentUnknown(parent, errno);
  if (tree != nullptr && isParentOfDepth(tree, parent, attr.depth() - 1)) return false;
  traceLog("clone %s: the parent %lld is not in snapshot %u\n", path.c_str(),
           static_cast<long long>(parent), snap.snapId());
  if (settings.phase == kPhaseMaster)
    userMessage(Message::kCloneParentGone, path, static_cast<int64_t>(snap.snapId()));
  return true;
}
