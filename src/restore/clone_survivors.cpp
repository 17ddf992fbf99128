#include "restore/clone_survivors.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "base/unique_fd.h"
#include "object/clones.h"
#include "object/flags.h"
#include "object/open_object.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "scan/clone_state.h"
#include "scan/same_file.h"
#include "scan/scan_pass.h"

namespace {

using NewParents = std::unordered_map<uint64_t, uint64_t>;  // number in the snapshot -> present number

Result readBucket(const std::string &bucket, NewParents *parents) {
  Dir dir;
  if (Result r = openWorkList(bucket, &dir); !r) return r;
  for (;;) {
    const dirent *entry = nullptr;
    if (Result r = nextEntry(dir, &entry); !r || !entry) return r;
    const std::optional<uint64_t> then = parseNewParentName(entry->d_name);
    if (!then) continue;
    uint64_t now = 0, twin = 0;
    if (Result r = readNewParent(*then, &now); !r) return r;
    if (Result r = called(kest_twin(handles.iscanP, *then, &twin)); !r) return r;
    // All surviving clones of a twin already name it as their parent.
    if (now != 0 && now != twin) (*parents)[*then] = now;
  }
}

Result readNewParents(NewParents *parents) {
  Dir dir;
  if (Result r = openWorkList(settings.shareDir, &dir); !r) return r;
  for (;;) {
    const dirent *entry = nullptr;
    if (Result r = nextEntry(dir, &entry); !r || !entry) return r;
    if (!isBucketName(entry->d_name)) continue;
    if (Result r = readBucket(settings.shareDir + "/" + entry->d_name, parents); !r) return r;
  }
}

// Setting a new parent number left the clone parent immutable. Restores the snapshot's state of that
// flag.
Result restoreImmutable(kest_ifile_t *snap, kest_ifile_t *active) {
  const UniqueFd snap_fd(kest_path_descriptor(snap));
  if (!snap_fd) return failedErrno(0);
  const UniqueFd fd(kest_path_descriptor(active));
  if (!fd) return failedErrno(0);
  InodeFlags wanted, now;
  if (Result r = getInodeFlags(snap_fd.get(), &wanted); !r) return r;
  if (Result r = getInodeFlags(fd.get(), &now); !r) return r;
  return wanted.immutable == now.immutable ? Result{} : setImmutableFlag(fd.get(), wanted.immutable);
}

// Finds the inode that now stands for the snapshot's clone `ino`: its twin, or the survivor itself; 0
// if none.
Result numberNow(uint64_t ino, uint64_t *now) {
  if (Result r = called(kest_twin(handles.iscanP, ino, now)); !r || *now != 0) return r;
  FileKind kind = kKindOther;
  if (Result r = checkFile(ino, &kind); !r) return r;
  if (kind == kKindSame) *now = ino;
  return {};
}

Result followParent(uint64_t ino, const NewParents &parents) {
  Inode snap, active;
  CloneAttr attr;
  if (Result r = openIfThere(handles.oldFsP, ino, &snap); !r || !snap) return r;
  bool clone = false;
  if (Result r = isClone(snap.get(), &clone, &attr); !r || !clone) return errnoResult(r.err);
  if (attr.depth() == 0 || attr.parentInSnapshot()) return {};
  const auto parent = parents.find(attr.parentIno());
  if (parent == parents.end()) return {};
  uint64_t now = 0;
  if (Result r = numberNow(ino, &now); !r || now == 0) return r;
  if (Result r = openInode(handles.activeFsP, now, &active); !r) return r;
  if (Result r = isClone(active.get(), &clone, &attr); !r || !clone) return errnoResult(r.err);
  if (attr.parentIno() == parent->second) return {};
  traceLog("clone %lld: the parent %lld is %lld now\n", static_cast<long long>(ino),
           static_cast<long long>(parent->first), static_cast<long long>(parent->second));
  if (Result r = called(kest_iset_clone_parent(active.get(), parent->second)); !r) return r;
  return attr.isParent() ? restoreImmutable(snap.get(), active.get()) : Result{};
}

// Gives a clone parent the snapshot's modification time, which it did not get before (see
// unsettledTime).
Result settleParent(uint64_t then, uint64_t now) {
  OpenObject snap;
  Inode active;
  if (Result r = openSnapshotObject(then, "", &snap); !r) return r;
  if (Result r = openInode(handles.activeFsP, now, &active); !r) return r;
  const kest_timestruc64_t times[4] = {{}, snap.facts.attr.ia_mtime, {}, {}};
  // The immutable flag of a parent forbids to set its times, so clear it for that moment.
  if (Result r = called(kest_iset_protection(active.get(), 0)); !r) return r;
  if (Result r = called(kest_iset_times(active.get(), KEST_MODIFICATION_TIME, times)); !r) return r;
  return called(kest_iset_protection(active.get(), snap.facts.protection));
}

Result followAll(const NewParents &parents) {
  const InodeScan all(kest_open_inodescan64(handles.oldFsP, nullptr, nullptr));
  if (!all) return failedErrno(0);
  for (;;) {
    const kest_iattr64_t *attr = nullptr;
    if (Result r = called(kest_next_inode64(all.get(), scan.maxIno, &attr)); !r || !attr) return r;
    if (!isRegular(attr->ia_mode)) continue;
    if (Result r = followParent(attr->ia_inode, parents); !r) return r;
  }
}

}  // namespace

Result followNewParents() {
  NewParents parents;
  if (Result r = readNewParents(&parents); !r || parents.empty()) return r;
  if (Result r = followAll(parents); !r) return r;
  // Only now do all clones know their parents. A run that died earlier leaves parents with a wrong
  // time, so that the next run makes them again.
  for (const auto &[then, now] : parents)
    if (Result r = settleParent(then, now); !r) return r;
  return {};
}
