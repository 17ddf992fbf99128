#include "run/open_run.h"

#include <string.h>
#include <sys/stat.h>

#include "messages/messages.h"
#include "run/rights.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/work_dir.h"

namespace {

constexpr int kFrameBlocks = 128;

// A null `snapshot` opens the active fileset.
Result openTree(const char *snapshot, kest_fssnap_handle_t **handle) {
  *handle =
      kest_get_fset_snaphandle_by_name(settings.deviceP.c_str(), settings.filesetP.c_str(), snapshot);
  if (*handle) return {};
  const Result result = failedErrno(0);
  userMessage(Message::kNoHandle, settings.filesetP, snapshot ? snapshot : "none (the active fileset)",
              settings.deviceP, kest_error_text());
  return result;
}

Result readRootPaths() {
  const char *root = kest_get_pathname_from_fssnaphandle(handles.activeFsP);
  const char *snap_root = kest_get_pathname_from_fssnaphandle(handles.oldFsP);
  if (!root || !snap_root) {
    const Result result = failed(0);
    userMessage(Message::kNoRootPath);
    userMessage(Message::kFileError, settings.filesetP, strerror(result.err));
    return result;
  }
  handles.rootPath = root;
  handles.snapRootPath = snap_root;
  return {};
}

Result readRootIno() {
  struct stat st;
  if (Result r = called(kest_lstat(handles.activeFsP, handles.rootPath.c_str(), &st)); !r) {
    userMessage(Message::kNoRootInode, settings.filesetP);
    userMessage(Message::kFileError, handles.rootPath, strerror(r.err));
    return r;
  }
  handles.rootIno = st.st_ino;
  return {};
}

Result readBlockSize() {
  kest_statfs64_t figures;
  if (Result r = called(kest_statfs64(handles.snapRootPath.c_str(), &figures)); !r) {
    userMessage(Message::kNoBlockSize, r.err);
    userMessage(Message::kFileError, handles.snapRootPath, strerror(r.err));
    return r;
  }
  settings.fsBlockSize = static_cast<int32_t>(figures.f_bsize);
  settings.frameSize = settings.fsBlockSize * kFrameBlocks;
  return {};
}

// Reads the number of a tree. Messages call the tree `name`.
Result readSnapId(kest_fssnap_handle_t *tree, const std::string &name, kest_snapid_t *id) {
  const Result result = called(kest_get_fssnapid_from_fssnaphandle(tree, id));
  if (!result) userMessage(Message::kNoSnapId, name, strerror(result.err));
  return result;
}

Result openDifference(kest_snapid_t snap_id, uint64_t *max_ino) {
  handles.iscanP = kest_open_inodescan64(handles.activeFsP, &snap_id, max_ino);
  if (handles.iscanP) return {};
  const Result result = failedErrno(0);
  userMessage(Message::kNoDiffScan, strerror(result.err));
  return result;
}

Result openScans(uint64_t *max_ino) {
  kest_snapid_t snap_id = 0, active_id = 0;
  if (Result r = readSnapId(handles.oldFsP, settings.snapOldP, &snap_id); !r) return r;
  if (Result r = readSnapId(handles.activeFsP, settings.deviceP, &active_id); !r) return r;
  handles.iscanFromP = kest_open_inodescan64(handles.oldFsP, nullptr, nullptr);
  if (!handles.iscanFromP) {
    const Result result = failedErrno(0);
    userMessage(Message::kNoSnapScan, strerror(result.err));
    return result;
  }
  // Only the master passes `max_ino`: finding the largest number takes longer than everything else
  // here.
  return openDifference(snap_id, max_ino);
}

Result openAll(const MasterSteps *master, Opened *failure) {
  *failure = Opened::kRelease;
  if (settings.role != Role::kWorker)
    if (Result r = checkRights(); !r) return r;
  if (Result r = openTree(nullptr, &handles.activeFsP); !r) return r;
  if (Result r = openTree(settings.snapOldP.c_str(), &handles.oldFsP); !r) return r;
  *failure = Opened::kEnd;
  if (Result r = readRootPaths(); !r) return r;
  if (master) {
    if (Result r = master->prepare(); !r) {
      *failure = Opened::kRelease;
      return r;
    }
  }
  if (settings.role == Role::kWorker)
    if (Result r = holdWorkDirectory(); !r) return r;
  if (Result r = readRootIno(); !r) return r;
  if (Result r = readBlockSize(); !r) return r;
  if (master) master->listSnapshots();
  return openScans(master ? master->maxIno : nullptr);
}

}  // namespace

Opened openRun(const MasterSteps *master, Result *result) {
  Opened failure = Opened::kRelease;
  *result = openAll(master, &failure);
  return *result ? Opened::kReady : failure;
}

Result renewDifference() {
  kest_snapid_t snap_id = 0;
  if (Result r = readSnapId(handles.oldFsP, settings.snapOldP, &snap_id); !r) return r;
  kest_close_inodescan(handles.iscanP);
  return openDifference(snap_id, nullptr);
}

Result holdWorkDirectory() {
  if (Result r = openWorkDirectory(); !r) return r;
  const int fd = workDirectoryDescriptor();
  return called(kest_anchor(handles.activeFsP, settings.shareDir.c_str(), fd));
}

void releaseHandles() {
  if (handles.iscanP) kest_close_inodescan(handles.iscanP);
  if (handles.iscanFromP) kest_close_inodescan(handles.iscanFromP);
  if (handles.oldFsP) kest_free_fssnaphandle(handles.oldFsP);
  if (handles.activeFsP) kest_free_fssnaphandle(handles.activeFsP);
  handles = {};
}
