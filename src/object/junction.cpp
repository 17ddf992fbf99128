#include "object/junction.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "cfgmgr/messages.h"
#include "object/object_stat.h"
#include "object/temp_place.h"
#include "run/path.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/shell_command.h"
#include "run/trace_log.h"

namespace {

constexpr size_t kCommandMax = 2048;  // bytes, terminator included

int junctionKind(const std::string &path, const kest_direntx64_t &entry) {
  const int kind = entry.d_flags & KEST_DF_JUNCTION ? 1 : entry.d_flags & KEST_DF_JUNCTION2 ? 2 : 0;
  if (kind != 0) {
    traceLog("checkJunction: path %s, d_name %s, d_flags %d\n", path.c_str(), entry.d_name,
             static_cast<int>(entry.d_flags));
  }
  return kind;
}

int searchFailed(const std::string &path, int code) {
  const int err = errno;
  traceLog("checkJunction: path %s, direntxP 0x%lX, rc %d, code %d, err %d\n", path.c_str(), 0ul, -1,
           code, err);
  errno = err;
  return -1;
}

int unlinkFailed(const std::string &path, int err) {
  traceLog("unlinkJunction: %s, rc %d, code %d, err %d\n", path.c_str(), -1, 1, err);
  errno = err;
  return -1;
}

}  // namespace

int checkJunction(const std::string &path, const kest_direntx64_t *entry) {
  if (entry != nullptr) return junctionKind(path, *entry);
  std::string parent = path;
  cutPath(parent);
  const size_t name_at = parent.size() + (parent.ends_with('/') ? 0 : 1);
  const std::string name = path.size() > name_at ? path.substr(name_at) : "";
  struct stat st;
  if (statPath(parent, &st) != 0) return searchFailed(path, 1);
  Inode dir = openInode(handles.activeFsP, st.st_ino);
  if (!dir) return searchFailed(path, 2);
  for (;;) {
    const kest_direntx64_t *next = nullptr;
    if (kest_ireaddir64(dir.get(), &next) != 0) return searchFailed(path, 3);
    if (next == nullptr) return 2;
    if (name == next->d_name) return junctionKind(path, *next);
  }
}

int unlinkJunction(const std::string &path) {
  traceLog("unlinkJunction: unlink fileset in junction %s\n", path.c_str());
  const std::string command = "/usr/qtx/kest/bin/ktunlinkfileset " + shellWord(settings.deviceP) +
                              " -J " + shellWord(linkFree(path)) + " 2>/dev/null";
  if (command.size() >= kCommandMax) {
    userMessage(Message::kCommandTooLong, static_cast<int>(kCommandMax), command);
    return unlinkFailed(path, ENAMETOOLONG);
  }
  std::string output;
  int status = 0;
  if (runCommandOutput(command, &output, &status) != 0) return unlinkFailed(path, errno);
  if (status != 0) {
    fprintf(stderr, "Failed to unlink the nested fileset at %s. exit status %d\n", path.c_str(),
            status);
    return unlinkFailed(path, EIO);
  }
  output.resize(std::min(output.find('\n'), output.size()));
  fprintf(stderr,
          "The nested fileset at %s is not in the snapshot. It was unlinked; all its data is at %s.\n",
          path.c_str(), output.c_str());
  return 0;
}
