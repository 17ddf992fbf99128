#include "oplist/policy_run.h"

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cfgmgr/messages.h"
#include "oplist/checkpoint_files.h"
#include "oplist/list_update.h"
#include "oplist/policy_file.h"
#include "run/fatal_error.h"
#include "run/path.h"
#include "run/settings.h"
#include "run/shell_command.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "run/work_access.h"
#include "run/work_dir.h"

namespace {

constexpr int kMaxRetries = 3;
constexpr size_t kOptionsMax = 2048;  // bytes, terminator included

int stop(int rc, int code, int err) {
  traceLog("executePolicy: rc %d, code %d, err %d\n", rc, code, err);
  errno = err;
  return rc;
}

// Removes the checkpoint files of this process; 0 when all are gone.
int removeCheckpoints() {
  const int32_t pid = getpid();
  if (settings.Verb) traceLog("executePolicy: filePrefix %s\n", checkpointPrefix(pid).c_str());
  std::vector<std::string> files;
  if (const int err = findCheckpointFiles(pid, &files)) return stop(-1, 31, err);
  for (const std::string &file : files) {
    traceLog("executePolicy: delete checkpoint file %s\n", file.c_str());
    if (unlinkWorkFile(file) != 0) return stop(-1, 32, errno);
  }
  return 0;
}

// The engine takes policy, list and batch files from this directory and from no other that comes to
// stand in its place. 0 or an errno.
int tellEngineDirectory(const std::string &policy) {
  struct stat st;
  std::string path = policy.empty() ? workPath(kPolicy) : policy;
  cutPath(path);
  if (path == settings.shareDir) {
    if (const int err = openWorkDirectory()) return err;
    if (fstat(workDirectoryDescriptor(), &st) != 0) return errno;
  } else if (statWorkFile(path, &st) != 0) {
    return errno;
  }
  return setenv("KT_DIRECTORY", directoryIdentity(st).c_str(), 1) == 0 ? 0 : errno;
}

}  // namespace

int executePolicy(const std::string &pcCmd, const std::string &exeOpt, const std::string &policyPath,
                  const std::string &opListPath) {
  struct stat list;
  if (statWorkFile(opListPath, &list) == 0 && list.st_size == 0) {
    traceLog("executePolicy: list %s is empty\n", opListPath.c_str());
    return 0;
  }
  const std::string options = exeOpt + " -c " + std::to_string(getpid());
  if (options.size() >= kOptionsMax) return stop(E2BIG, 0, E2BIG);
  if (int rc = tellEngineDirectory(policyPath)) return stop(rc, 0, rc);
  for (int retries = 0;;) {
    if (int rc = writePolicyFile(settings.exe, options, policyPath)) return stop(rc, 0, rc);
    int status = 0;
    if (runCommand("exec " + pcCmd, &status) != 0) {
      int err = errno;
      if (stopSignal() != 0) return stop(EINTR, 0, EINTR);
      fprintf(stderr, "fork: %s\n", strerror(err));
      return stop(err != 0 ? err : EAGAIN, 0, err);
    }
    traceLog("executePolicy: master: child rc %d\n", status);
    if (status == 0) return removeCheckpoints();
    if (stopSignal() != 0) return stop(EINTR, 0, EINTR);
    // Where no marker can be written any more, the status alone tells.
    if (getFatalError() != 0 || status == ENOSPC || retries == kMaxRetries) return stop(status, 0, 0);
    if (updateOpList(opListPath, getpid()) != 0) traceLog("executePolicy: cannot update opList\n");
    ++retries;
    userMessage(Message::kEngineRetry, retries);
  }
}
