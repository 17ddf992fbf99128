#include "policy/policy_run.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "formats/policy_text.h"
#include "formats/work_names.h"
#include "messages/messages.h"
#include "policy/list_update.h"
#include "run/fatal_error.h"
#include "run/node.h"
#include "run/settings.h"
#include "run/shell_command.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

// A worker that died by chance lives in a retry. One that dies every time must not be started for ever.
constexpr int kMaxRetries = 3;

enum RunStep : int {
  kRunEngine = 0,  // everything up to the engine's exit status
  kFindCheckpoints = 31,
  kRemoveCheckpoint = 32,
};

// Removes the checkpoint files of runs that this process started.
Result removeCheckpoints() {
  const int32_t pid = callerNumber();
  if (settings.Verb) traceLog("executePolicy: filePrefix %s\n", checkpointPrefix(pid).c_str());
  std::vector<std::string> files;
  if (Result r = findCheckpointFiles(pid, &files); !r) return failed(kFindCheckpoints, r.err);
  for (const std::string &file : files) {
    traceLog("executePolicy: delete checkpoint file %s\n", file.c_str());
    if (Result r = unlinkWorkFile(file); !r) return failed(kRemoveCheckpoint, r.err);
  }
  return {};
}

// Exports the identity of the directory, so that the engine takes policy, list and batch files only
// from it and refuses another directory that has taken its path.
Result exportEngineDirectory(const std::string &path) {
  struct stat st;
  if (path == settings.shareDir) {
    if (Result r = openWorkDirectory(); !r) return r;
    if (Result r = called(fstat(workDirectoryDescriptor(), &st)); !r) return r;
  } else if (Result r = statWorkFile(path, &st); !r) {
    return r;
  }
  return called(setenv(kEngineDirectoryVariable, directoryIdentity(st).c_str(), 1));
}

// Writes the policy file, which names this program as the engine's list script.
Result writePolicy(const std::string &path, const std::string &options) {
  std::unique_ptr<WorkFile> file;
  if (Result r = WorkFile::open(path, WorkFile::Mode::kTruncate, &file); !r) {
    traceLog("Write policy file %s failed.\n", path.c_str());
    return r;
  }
  const Result written = file->append(formatPolicy(settings.exe, options));
  const Result result = firstFailure(written, closeWorkFile(file, path));
  if (!result) traceLog("Write policy file");
  return result;
}

Result runWithRetries(const EngineRun &run) {
  std::string options;
  if (Result r = callerOptions(run, &options); !r) return r.at(kRunEngine);
  if (Result r = exportEngineDirectory(run.directory); !r) return r.at(kRunEngine);
  for (int retries = 0;;) {
    if (Result r = writePolicy(run.policy, options); !r) return r.at(kRunEngine);
    int status = 0;
    const Result started = runCommand(engineCommand(run), &status);
    if (started) traceLog("executePolicy: master: child rc %d\n", status);
    if (started && status == 0) return removeCheckpoints();
    if (stopSignal() != 0) return failedErrno(kRunEngine, EINTR);
    if (!started) {
      fprintf(stderr, "fork: %s\n", strerror(started.err));
      return failedErrno(kRunEngine, started.err);
    }
    const Result recorded = recordedError();
    // On a full file system a worker cannot write the marker, so its exit status is the only sign of
    // the failure.
    if (!recorded || status == ENOSPC || retries == kMaxRetries)
      return commandFailed(kRunEngine, status);
    // A killed engine has left its parts on the other nodes. They would work beside those of the retry.
    // (The marker is that of the master's engine; nested runs stay on their node.)
    struct stat marker;
    if (settings.isMaster() && statWorkFile(workPath(kNodeRun), &marker)) {
      awaitDeadNodes();
      (void)unlinkWorkFile(workPath(kNodeRun));
    }
    // If the update fails, the retry performs the whole list again, which is slower but harmless.
    if (!updateOpList(run.list, callerNumber())) traceLog("executePolicy: cannot update opList\n");
    ++retries;
    userMessage(Message::kEngineRetry, retries);
  }
}

}  // namespace

Result executePolicy(const EngineRun &run) {
  struct stat list;
  if (statWorkFile(run.list, &list) && list.st_size == 0) {
    traceLog("executePolicy: list %s is empty\n", run.list.c_str());
    return {};
  }
  const Result result = runWithRetries(run);
  if (!result) traceLog("executePolicy: rc %d, code %d, err %d\n", result.rc, result.code, result.err);
  return result;
}
