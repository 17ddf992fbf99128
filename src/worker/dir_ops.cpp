#include "worker/dir_ops.h"

#include <fcntl.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "object/attr_restore.h"
#include "object/clear_flags.h"
#include "object/junction.h"
#include "object/new_dir_list.h"
#include "object/object_stat.h"
#include "object/snap_path.h"
#include "object/step.h"
#include "object/temp_place.h"
#include "object/xattr_restore.h"
#include "oplist/nested_runs.h"
#include "run/descriptor.h"
#include "run/path.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_access.h"
#include "run/work_dir.h"
#include "worker/work_unit.h"

namespace {

int finish(const char *routine, const std::string &path, uint64_t ino, const Step &step) {
  if (step) return 0;
  traceLog("%s: path %s, ino %lld, rc %d, code %d, error %d\n", routine, path.c_str(),
           static_cast<long long>(ino), step.rc, step.code, step.err);
  errno = step.err != 0 ? step.err : EIO;
  return step.rc;
}

// The workers of a nested run have recorded their own reason; its exit status stands for it here.
Step runLists(uint64_t ino, bool deleted, int code) {
  errno = 0;
  const int rc = restoreDelNewDir(ino, deleted, performListHere);
  if (rc == 0) return {};
  return failedStep(code, errno != 0 ? errno : rc > 0 ? rc : EIO, rc);
}

// Once directories have gone home, their attributes are restored there: paths through the links that
// they left behind would name the links.
int settledPath(const std::string &path, std::string *real) {
  *real = path;
  if (!inWorkDir(path)) return 0;
  std::string home;
  struct stat st;
  if (getRealPath(path, &home) != 0) return -1;
  if (statPath(home, &st) == 0 || statPath(path, &st) != 0) *real = home;
  return 0;
}

int makeDirectory(const std::string &path, uint32_t mode) {
  const int err = retryClearing(
      path, "", [&] { return kest_mkdir(handles.activeFsP, linkFree(path).c_str(), mode & 07777); });
  if (err == 0) return 0;
  struct stat st;
  if (err == EEXIST && statPath(path, &st) == 0 && S_ISDIR(st.st_mode)) return 0;
  return err;
}

Step makeAndRestore(const std::string &listed_path, uint64_t ino, kest_ifile_t *snap) {
  const bool last = settings.phase == kPhaseDirs;
  std::string path = listed_path;
  if (last && settledPath(listed_path, &path) != 0) return failedStep(2, errno);
  if (const int err = makeDirectory(path, snap->if_mode)) return failedStep(2, err);
  if (!settings.noXAttr) {
    if (int rc = restoreXAttr(ino, snap, &path); rc != 0) return failedStep(3, errno, rc);
  }
  if (int rc = restoreAttr(path, settings.phase); rc != 0) return failedStep(4, errno, rc);
  if (!last) {
    if (int rc = listNewDir(path, ino); rc != 0) return failedStep(5, errno, rc);
  }
  return {};
}

Step make(const std::string &path, uint64_t ino) {
  Inode snap = openInode(handles.oldFsP, ino);
  if (!snap) return failedStep(1, errno);
  if (!isDirectory(snap->if_mode)) return failedStep(1, ENOTDIR);
  if (settings.pass == 1 || settings.phase == kPhaseDirs) {
    const Step step = makeAndRestore(path, ino, snap.get());
    if (!step) return step;
  }
  snap.reset();
  return settings.topDir ? runLists(ino, true, 0) : Step{};
}

// True when the directory has no entry at all; false also when it cannot be read.
bool reallyEmpty(const kest_ifile_t *dir) {
  Descriptor named(kest_path_descriptor(dir));
  if (!named) return false;
  const int fd = reopen(named.get(), O_RDONLY | O_DIRECTORY);
  const Dir stream(fd < 0 ? nullptr : fdopendir(fd));
  if (!stream) return false;
  while (const dirent *entry = readdir(stream.get())) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) return false;
  }
  return true;
}

// True when a directory holds nothing but what no restore touches (snapshots, nested filesets that
// stand where they stood), perhaps in directories that hold nothing else.
bool holdsOnlyHidden(uint64_t ino) {
  Inode dir = openInode(handles.activeFsP, ino);
  if (!dir || !isDirectory(dir->if_mode)) return false;
  bool any = false;
  for (;;) {
    const kest_direntx64_t *entry = nullptr;
    if (kest_ireaddir64(dir.get(), &entry) != 0) return false;
    if (entry == nullptr) return any || !reallyEmpty(dir.get());
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    const bool plain_directory =
        entry->d_type == DT_DIR && (entry->d_flags & (KEST_DF_JUNCTION | KEST_DF_JUNCTION2)) == 0;
    if (!plain_directory || !holdsOnlyHidden(entry->d_ino)) return false;
    any = true;
  }
}

int removeDirectory(const std::string &path, uint64_t ino) {
  return retryClearing(path, "",
                       [&] { return kest_rmdir(handles.activeFsP, linkFree(path).c_str(), ino); });
}

Step removeFailed(const std::string &path, int err) {
  traceLog("delDir: delete dir %s failed, err %d\n", path.c_str(), err);
  return failedStep(4, err);
}

Step removeJunction(const std::string &path, int err) {
  if (checkJunction(path, nullptr) <= 0) return removeFailed(path, err);
  if (unlinkJunction(path) != 0) return failedStep(31, errno);
  struct stat st;
  if (statPath(path, &st) != 0 && errno == ENOENT) return {};
  err = removeDirectory(path, 0);  // the stub of the nested fileset
  return err == 0 || err == ENOENT ? Step{} : removeFailed(path, err);
}

Step remove(const std::string &path, uint64_t ino) {
  struct stat st;
  if (statPath(path, &st) != 0) {
    const int err = errno;
    if (err == ENOENT) return {};
    traceLog("delDir: stat dir %s failed, err %d\n", path.c_str(), err);
    return failedStep(2, err);
  }
  if (settings.topDir) {
    const Step step = runLists(ino, false, 3);
    if (!step) return step;
  }
  if (st.st_ino != ino) return {};
  const int err = removeDirectory(path, ino);
  if (err == 0 || err == ENOENT) return {};
  if (err == EPERM) return removeJunction(path, err);
  if (err == ENOTEMPTY && holdsOnlyHidden(ino)) {
    traceLog("delDir: dir %s stays, it holds what is left alone\n", path.c_str());
    fprintf(stderr, "The directory %s stays: it holds snapshots or filesets, which are left alone.\n",
            path.c_str());
    return {};
  }
  return removeFailed(path, err);
}

}  // namespace

int crDir(const std::string &path, uint64_t ino) {
  return finish("crDir", path, ino, make(path, ino));
}

int delDir(const std::string &path, uint64_t ino) {
  return finish("delDir", path, ino, remove(path, ino));
}
