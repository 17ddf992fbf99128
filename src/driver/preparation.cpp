#include "driver/preparation.h"

#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

#include "cfgmgr/messages.h"
#include "driver/fileset_services.h"
#include "driver/run_lock.h"
#include "driver/self_check.h"
#include "object/control_request.h"
#include "object/object_stat.h"
#include "run/descriptor.h"
#include "run/path.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/work_access.h"
#include "scan/scan_pass.h"

namespace {

constexpr size_t kShareDirMax = 1023;     // characters; workers take no more
constexpr int kOtherNumbers = 100000;     // left-over work directories that are passed over
constexpr mode_t kWorkDirTopMode = 0700;  // what was set aside must not become readable to others
constexpr int kFrameBlocks = 128;

// Failing calls set errno; EIO is for those that break the rule.
int errorNumber() {
  return errno ? errno : EIO;
}

kest_fssnap_handle_t *openHandle(const char *snapshot, int *rc) {
  kest_fssnap_handle_t *handle =
      kest_get_fset_snaphandle_by_name(settings.deviceP.c_str(), settings.filesetP.c_str(), snapshot);
  if (handle) return handle;
  *rc = errorNumber();
  userMessage(Message::kNoHandle, settings.filesetP, snapshot ? snapshot : "(null)", settings.deviceP,
              kest_error_text());
  return nullptr;
}

// The root directory itself is accepted as current directory.
bool runsInsideFileset() {
  const std::unique_ptr<char, decltype(&free)> current(getcwd(nullptr, 0), free);
  if (!current) return false;
  return handles.rootPath != current.get() && liesIn(current.get(), handles.rootPath);
}

// What the root directory carried before the run cleared it.
InodeFlags rootFlags;

// An immutable root takes no work directory, an append-only one does not give it up again. 0 or an
// errno.
int clearRootFlags() {
  Descriptor root(openObject(handles.rootPath));
  if (!root || getInodeFlags(root.get(), &rootFlags) != 0) return errorNumber();
  if (!rootFlags.immutable && !rootFlags.appendOnly) return 0;
  return clearInodeFlags(root.get()) == 0 ? 0 : errorNumber();
}

// From here on the work directory is a descriptor, whatever its path comes to mean. 0 or an errno.
int holdWorkDirectory() {
  if (const int error = openWorkDirectory()) return error;
  const int fd = workDirectoryDescriptor();
  return kest_anchor(handles.activeFsP, settings.shareDir.c_str(), fd) == 0 ? 0 : errorNumber();
}

// What was made a moment ago is empty; a left-over of an earlier run that somebody put there is not.
int holdNewWorkDirectory() {
  if (const int error = holdWorkDirectory()) return error;
  const Dir dir = openWorkList(settings.shareDir);
  errno = 0;
  while (const dirent *entry = dir ? readdir(dir.get()) : nullptr)
    if (entry->d_name[0] != '.') return EEXIST;
  if (errno != 0) return errno;
  tellWorkDirectory();
  return 0;
}

// 0 or an errno.
int makeTopDirectory() {
  if (const int rc = clearRootFlags()) return rc;
  forgetToldDirectory();
  const int pid = static_cast<int>(getpid());
  for (int number = pid; number < pid + kOtherNumbers; ++number) {
    std::string path = handles.rootPath;
    if (!appendPath(path, "RestoreTemp" + std::to_string(number)) || path.size() > kShareDirMax)
      return ENAMETOOLONG;
    if (kest_mkdir(handles.activeFsP, path.c_str(), kWorkDirTopMode) == 0) {
      settings.shareDir = path;
      return holdNewWorkDirectory();
    }
    if (errno != EEXIST) return errorNumber();
  }
  return EEXIST;
}

// Checks and steps of the master alone. False: nothing may have been left behind.
bool prepareMaster(int *rc) {
  if (settings.threads < 1 || settings.maxFiles < 1) {
    userMessage(Message::kNumberTooSmall);
    *rc = EINVAL;
    return false;
  }
  if (runsInsideFileset()) {
    userMessage(Message::kInsideFileset);
    *rc = -1;
    return false;
  }
  if ((*rc = lockFileset()) != 0 || (*rc = selfCheck()) != 0) return false;
  if ((*rc = checkFilesetType()) != 0) {
    userMessage(Message::kRemoteCaching);
    return false;
  }
  if (stopSignal() != 0) {
    *rc = EINTR;
    userMessage(Message::kStoppedBefore, strsignal(stopSignal()), settings.filesetP);
    return false;
  }
  if ((*rc = makeTopDirectory()) != 0) {
    userMessage(Message::kNoWorkDir, strerror(*rc));
    putBackRootFlags();
    return false;
  }
  return true;
}

bool readBlockSize(int *rc) {
  kest_statfs64_t figures;
  if (kest_statfs64(handles.snapRootPath.c_str(), &figures) != 0) {
    *rc = errorNumber();
    userMessage(Message::kNoBlockSize, *rc);
    return false;
  }
  settings.fsBlockSize = static_cast<int32_t>(figures.f_bsize);
  settings.frameSize = settings.fsBlockSize * kFrameBlocks;
  return true;
}

bool openScans(int *rc) {
  kest_snapid_t snap_id = 0, active_id = 0;
  if (kest_get_fssnapid_from_fssnaphandle(handles.oldFsP, &snap_id) != 0) {
    *rc = errorNumber();
    userMessage(Message::kNoSnapId, settings.snapOldP, strerror(*rc));
    return false;
  }
  if (kest_get_fssnapid_from_fssnaphandle(handles.activeFsP, &active_id) != 0) {
    *rc = errorNumber();
    userMessage(Message::kNoSnapId, settings.deviceP, strerror(*rc));
    return false;
  }
  handles.iscanFromP = kest_open_inodescan64(handles.oldFsP, nullptr, nullptr);
  if (!handles.iscanFromP) {
    *rc = errorNumber();
    userMessage(Message::kNoSnapScan, strerror(*rc));
    return false;
  }
  // Looking for the largest number takes longer than all else here; workers scan nothing.
  uint64_t *max_ino = settings.phase == kPhaseMaster ? &scan.maxIno : nullptr;
  handles.iscanP = kest_open_inodescan64(handles.activeFsP, &snap_id, max_ino);
  if (!handles.iscanP) {
    *rc = errorNumber();
    userMessage(Message::kNoDiffScan, strerror(*rc));
    return false;
  }
  return true;
}

}  // namespace

void putBackRootFlags() {
  Descriptor root(openObject(handles.rootPath));
  if (!root) return;
  if (rootFlags.immutable) setImmutableFlag(root.get(), true);
  if (rootFlags.appendOnly) setAppendOnlyFlag(root.get(), true);
}

Prepared prepareRun(int *rc) {
  const bool master = settings.phase == kPhaseMaster;
  if (!(handles.activeFsP = openHandle(nullptr, rc))) return Prepared::kRelease;
  if (!(handles.oldFsP = openHandle(settings.snapOldP.c_str(), rc))) return Prepared::kRelease;
  const char *root = kest_get_pathname_from_fssnaphandle(handles.activeFsP);
  const char *snap_root = kest_get_pathname_from_fssnaphandle(handles.oldFsP);
  if (!root || !snap_root) {
    userMessage(Message::kNoRootPath);
    *rc = -1;
    return Prepared::kEnd;
  }
  handles.rootPath = root;
  handles.snapRootPath = snap_root;
  if (master && !prepareMaster(rc)) return Prepared::kRelease;
  const bool told = !master && !settings.shareDir.empty();  // a comparison has no work directory
  if (told && (*rc = holdWorkDirectory()) != 0) return Prepared::kEnd;
  struct stat st;
  if (statPath(handles.rootPath, &st) != 0) {
    *rc = errorNumber();
    userMessage(Message::kNoRootInode, settings.filesetP);
    return Prepared::kEnd;
  }
  handles.rootIno = st.st_ino;
  if (!readBlockSize(rc)) return Prepared::kEnd;
  if (master) listSnapshots();
  return openScans(rc) ? Prepared::kReady : Prepared::kEnd;
}

void releaseHandles() {
  if (handles.iscanP) kest_close_inodescan(handles.iscanP);
  if (handles.iscanFromP) kest_close_inodescan(handles.iscanFromP);
  if (handles.oldFsP) kest_free_fssnaphandle(handles.oldFsP);
  if (handles.activeFsP) kest_free_fssnaphandle(handles.activeFsP);
  handles = {};
}
