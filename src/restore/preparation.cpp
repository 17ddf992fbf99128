#include "restore/preparation.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "base/unique_fd.h"
#include "messages/messages.h"
#include "object/flags.h"
#include "object/paths.h"
#include "restore/fileset_services.h"
#include "restore/make_room.h"
#include "restore/node_check.h"
#include "restore/start_checks.h"
#include "run/open_run.h"
#include "run/path.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/work_dir.h"

namespace {

constexpr int kOtherNumbers = 100000;     // how many left-over work directories are skipped
constexpr mode_t kWorkDirTopMode = 0700;  // others must not read objects that wait in it

// The flags of the root directory before this run cleared them.
InodeFlags rootFlags;

// The root directory itself is allowed as current directory.
bool runsInsideFileset() {
  const std::unique_ptr<char, decltype(&free)> current(getcwd(nullptr, 0), free);
  if (!current) return false;
  return handles.rootPath != current.get() && liesIn(current.get(), handles.rootPath);
}

// An immutable root directory takes no new work directory, and an append-only one would keep it for
// ever.
Result clearRootFlags() {
  UniqueFd root;
  if (Result r = openObject(handles.rootPath, &root); !r) return r;
  InodeFlags now;
  if (Result r = getInodeFlags(root.get(), &now); !r) return r;
  if (!now.immutable && !now.appendOnly) return {};
  rootFlags = now;  // only here: a later attempt finds them cleared
  return clearInodeFlags(root.get());
}

// Checks that the work directory is empty. Somebody could have replaced the new one by that of an
// earlier run.
Result holdNewWorkDirectory() {
  if (Result r = holdWorkDirectory(); !r) return r;
  Dir dir;
  const dirent *entry = nullptr;
  if (Result r = openWorkList(settings.shareDir, &dir); !r) return r;
  if (Result r = nextEntry(dir, &entry); !r) return r;
  if (entry) return errnoResult(EEXIST);
  exportWorkDirectory();
  return {};
}

Result makeTopDirectory() {
  if (Result r = clearRootFlags(); !r) return r;
  forgetInheritedDirectory();
  const int pid = static_cast<int>(getpid());
  for (int number = pid; number < pid + kOtherNumbers; ++number) {
    std::string path = handles.rootPath;
    if (!appendPath(path, workDirName(number)) || path.size() > kWorkDirPathMost)
      return errnoResult(ENAMETOOLONG);
    const Result made = called(kest_mkdir(handles.activeFsP, path.c_str(), kWorkDirTopMode));
    if (made) {
      settings.shareDir = path;
      return holdNewWorkDirectory();
    }
    // On a full file system mkdir can succeed and setting the mode fail, so remove the directory.
    if (isFull(made.err)) (void)kest_rmdir(handles.activeFsP, path.c_str(), 0);
    if (made.err != EEXIST) return made;
  }
  return errnoResult(EEXIST);
}

}  // namespace

Result prepareMaster() {
  if (settings.threads < 1 || settings.maxFiles < 1) {
    userMessage(Message::kNumberTooSmall);
    return errnoResult(EINVAL);
  }
  if (runsInsideFileset()) {
    userMessage(Message::kInsideFileset);
    return failed(0, EINVAL);
  }
  if (Result r = lockFileset(); !r) return r;
  if (Result r = selfCheck(); !r) return r;
  if (Result r = checkFilesetType(); !r) return r;
  if (stopSignal() != 0) {
    userMessage(Message::kStoppedBefore, strsignal(stopSignal()), settings.filesetP);
    return errnoResult(EINTR);
  }
  awaitDeadRuns();
  Result made = makeTopDirectory();
  if (isFull(made.err)) made = makeRoom(makeTopDirectory);
  if (!made) {
    userMessage(Message::kNoWorkDir, strerror(made.err));
    if (isFull(made.err)) userMessage(Message::kNoSpace);
    putBackRootFlags();
  }
  return made;
}

void putBackRootFlags() {
  if (!rootFlags.immutable && !rootFlags.appendOnly) return;
  UniqueFd root;
  if (!openObject(handles.rootPath, &root)) return;
  // Best effort, because the result of the failed or stopped run matters more.
  if (rootFlags.immutable) (void)setImmutableFlag(root.get(), true);
  if (rootFlags.appendOnly) (void)setAppendOnlyFlag(root.get(), true);
}
