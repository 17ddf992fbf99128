#include "driver/self_check.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "cfgmgr/messages.h"
#include "run/run_handles.h"
#include "run/settings.h"

namespace {

constexpr const char *kCommands[] = {"ktapplypolicy", "ktfsctl",         "ktlsfileset",
                                     "ktlssnapshot",  "ktunlinkfileset", "kxfindinode"};

// 0 or an errno, after a message.
int checkFileOfRun(const std::string &path) {
  const int survives = kest_file_survives(handles.activeFsP, handles.oldFsP, path.c_str());
  if (survives > 0) return 0;
  if (survives < 0) {
    const int error = errno;
    userMessage(Message::kCommandMissing, path, strerror(error));
    return error;
  }
  userMessage(Message::kWouldRemoveItself, path, settings.filesetP, settings.snapOldP);
  return EBUSY;
}

}  // namespace

int selfCheck() {
  char other[256];
  if (kest_other_node(settings.nodeSpec.c_str(), other, sizeof other) != 0) {
    userMessage(Message::kOtherNode, other);
    return EINVAL;
  }
  if (kest_is_writable(handles.activeFsP) == 0) {
    userMessage(Message::kReadOnlyFileset, settings.filesetP);
    return EROFS;
  }
  for (const char *name : kCommands) {
    const std::string path = std::string("/usr/qtx/kest/bin/") + name;
    struct stat st;
    int error = stat(path.c_str(), &st) != 0 ? errno : S_ISREG(st.st_mode) ? 0 : EACCES;
    if (error == 0 && access(path.c_str(), X_OK) != 0) error = errno;
    if (error != 0) {
      userMessage(Message::kCommandMissing, path, strerror(error));
      return error;
    }
    if ((error = checkFileOfRun(path)) != 0) return error;
  }
  if (const int error = checkFileOfRun(settings.exe)) return error;
  Dl_info library;
  if (dladdr(reinterpret_cast<void *>(&kest_iopen64), &library) != 0 && library.dli_fname) {
    const std::unique_ptr<char, decltype(&free)> path(realpath(library.dli_fname, nullptr), free);
    if (const int error = checkFileOfRun(path ? path.get() : library.dli_fname)) return error;
  }
  if (kest_is_writable(handles.oldFsP) == 1) userMessage(Message::kWritableSnapshot, settings.snapOldP);
  return 0;
}

int mountCheck() {
  char point[kPathMax];
  const int found =
      kest_mount_in_the_way(handles.activeFsP, handles.oldFsP, handles.iscanP, point, sizeof point);
  if (found == 0) return 0;
  if (found < 0) {
    const int error = errno;
    userMessage(Message::kMountsUnknown, settings.filesetP, strerror(error));
    return error;
  }
  userMessage(Message::kMountInTheWay, point);
  return EBUSY;
}
