#include "driver/clone_survivors.h"

#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "object/control_request.h"
#include "object/path_files.h"
#include "run/descriptor.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_access.h"
#include "scan/clone_state.h"
#include "scan/same_file.h"
#include "scan/scan_pass.h"

namespace {

using NewParents = std::unordered_map<uint64_t, uint64_t>;  // number in the snapshot to number now

constexpr std::string_view kNewParentSuffix = ".clone.newParent";

// The <ino> of "<ino>.clone.newParent"; false for every other name.
bool parseNewParentName(std::string_view name, uint64_t *ino) {
  if (!name.ends_with(kNewParentSuffix)) return false;
  name.remove_suffix(kNewParentSuffix.size());
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), *ino);
  return error == std::errc() && end == name.data() + name.size();
}

// 0 or an errno.
int readBucket(const std::string &bucket, NewParents *parents) {
  const Dir dir = openWorkList(bucket);
  if (!dir) return errno;
  for (errno = 0; const dirent *entry = readdir(dir.get()); errno = 0) {
    uint64_t then = 0, now = 0;
    if (!parseNewParentName(entry->d_name, &then)) continue;
    const int recorded = readNewParent(then, &now);
    if (recorded < 0) return errno;
    if (recorded > 0) (*parents)[then] = now;
  }
  return errno;
}

// 0 or an errno.
int readNewParents(NewParents *parents) {
  const Dir dir = openWorkList(settings.shareDir);
  if (!dir) return errno;
  for (errno = 0; const dirent *entry = readdir(dir.get()); errno = 0) {
    if (!std::string_view(entry->d_name).starts_with("MOVE_")) continue;
    if (const int err = readBucket(settings.shareDir + "/" + entry->d_name, parents)) return err;
  }
  return errno;
}

// A clone parent has become immutable on the way, whatever it was in the snapshot. 0, or -1 and errno.
int restoreImmutable(kest_ifile_t *snap, kest_ifile_t *active) {
  const Descriptor snap_fd(kest_path_descriptor(snap)), fd(kest_path_descriptor(active));
  InodeFlags wanted, now;
  if (!snap_fd || !fd || getInodeFlags(snap_fd.get(), &wanted) != 0 ||
      getInodeFlags(fd.get(), &now) != 0)
    return -1;
  return wanted.immutable == now.immutable ? 0 : setImmutableFlag(fd.get(), wanted.immutable);
}

// 0, or -1 and errno.
int followParent(uint64_t ino, const NewParents &parents) {
  Inode snap = openInode(handles.oldFsP, ino);
  CloneAttr attr;
  if (!snap) return errno == ENOENT ? 0 : -1;
  if (!isClone(snap.get(), &attr, nullptr) || attr.depth() == 0 || attr.parentInSnapshot()) return 0;
  const auto parent = parents.find(attr.parentIno());
  if (parent == parents.end()) return 0;
  const int kind = checkFile(ino);
  if (kind < 0) return -1;
  if (kind != kKindSame) return 0;
  Inode active = openInode(handles.activeFsP, ino);
  if (!active) return -1;
  if (!isClone(active.get(), &attr, nullptr) || attr.parentIno() == parent->second) return 0;
  traceLog("clone %lld: the parent %lld is %lld now\n", static_cast<long long>(ino),
           static_cast<long long>(parent->first), static_cast<long long>(parent->second));
  if (kest_iset_clone_parent(active.get(), parent->second) != 0) return -1;
  return attr.isParent() ? restoreImmutable(snap.get(), active.get()) : 0;
}

}  // namespace

int followNewParents() {
  NewParents parents;
  if (const int err = readNewParents(&parents)) {
    errno = err;
    return -1;
  }
  if (parents.empty()) return 0;
  const InodeScan all(kest_open_inodescan64(handles.oldFsP, nullptr, nullptr));
  if (!all) return -1;
  for (;;) {
    const kest_iattr64_t *attr = nullptr;
    if (kest_next_inode64(all.get(), scan.maxIno, &attr) != 0) return -1;
    if (attr == nullptr) return 0;
    if (isRegular(attr->ia_mode) && followParent(attr->ia_inode, parents) != 0) return -1;
  }
}
