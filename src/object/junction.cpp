#include "object/junction.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "formats/program_names.h"
#include "messages/messages.h"
#include "object/paths.h"
#include "run/path.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/shell_command.h"
#include "run/trace_log.h"

namespace {

// Step codes of the two routines in the trace log.
enum CheckStep : int { kStatParent = 1, kOpenParent = 2, kReadParent = 3 };
enum UnlinkStep : int { kUnlinkFileset = 1 };

Result search(const std::string &path, bool *junction) {
  std::string parent = path;
  cutPath(parent);
  const size_t name_at = parent.size() + (parent.ends_with('/') ? 0 : 1);
  const std::string name = path.size() > name_at ? path.substr(name_at) : "";
  struct stat st;
  if (Result r = statPath(parent, &st); !r) return failed(kStatParent, r.err);
  Inode dir;
  if (Result r = openInode(handles.activeFsP, st.st_ino, &dir); !r) return failed(kOpenParent, r.err);
  for (;;) {
    const kest_direntx64_t *next = nullptr;
    if (kest_ireaddir64(dir.get(), &next) != 0) return failed(kReadParent);
    *junction = next == nullptr || (name == next->d_name && isJunction(path, *next));
    if (next == nullptr || name == next->d_name) return {};
  }
}

// The command prints the reason of its failure itself.
Result unlinkFileset(const std::string &path, const std::string &shown, const std::string &home) {
  const std::string command = std::string(kProgramDir) + "ktunlinkfileset " +
                              shellWord(settings.deviceP) + " -J " + shellWord(resolveOwnLinks(path));
  if (!checkCommand(command)) return failed(kUnlinkFileset, ENAMETOOLONG);
  std::string output;
  int status = 0;
  if (Result r = runCommandOutput(command, &output, &status); !r) {
    userMessage(Message::kFileError, "ktunlinkfileset", strerror(r.err));
    return failed(kUnlinkFileset, r.err);
  }
  if (status != 0) {
    userMessage(Message::kUnlinkFailed, shown, status);
    return failed(kUnlinkFileset, EIO);
  }
  output.resize(std::min(output.find('\n'), output.size()));
  if (home.empty()) {
    userMessage(Message::kUnlinked, shown, output);
  } else {
    userMessage(Message::kUnlinkedFromHome, shown, home, output);
  }
  return {};
}

}  // namespace

bool isJunction(const std::string &path, const kest_direntx64_t &entry) {
  if ((entry.d_flags & (KEST_DF_JUNCTION | KEST_DF_JUNCTION2)) == 0) return false;
  traceLog("checkJunction: path %s, d_name %s, d_flags %d\n", path.c_str(), entry.d_name,
           static_cast<int>(entry.d_flags));
  return true;
}

Result checkJunction(const std::string &path, bool *junction) {
  *junction = false;
  const Result r = search(path, junction);
  if (!r) {
    traceLog("checkJunction: path %s, direntxP 0x%lX, rc %d, code %d, err %d\n", path.c_str(), 0ul,
             r.rc, r.code, r.err);
  }
  return r;
}

Result unlinkJunction(const std::string &path, const std::string &shown, const std::string &home) {
  traceLog("unlinkJunction: unlink fileset in junction %s\n", path.c_str());
  const Result r = unlinkFileset(path, shown, home);
  if (!r) {
    traceLog("unlinkJunction: %s, rc %d, code %d, err %d\n", path.c_str(), r.rc, r.code, r.err);
  }
  return r;
}
