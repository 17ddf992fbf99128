#include "oplist/policy_run.h"

#include <dirent.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "cfgmgr/messages.h"
#include "oplist/list_update.h"
#include "oplist/policy_file.h"
#include "run/fatal_error.h"
#include "run/settings.h"
#include "run/shell_command.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

constexpr int kMaxRetries = 3;
constexpr size_t kOptionsMax = 2048;  // bytes, terminator included

struct DirCloser {
  void operator()(DIR *dir) const { closedir(dir); }
};

int stop(int rc, int code, int err) {
  traceLog("executePolicy: rc %d, code %d, err %d\n", rc, code, err);
  errno = err;
  return rc;
}

// Removes the checkpoint files of this process; 0 when all are gone.
int removeCheckpoints() {
  const std::string prefix = checkpointPrefix(getpid());
  if (settings.Verb) traceLog("executePolicy: filePrefix %s\n", prefix.c_str());
  const std::string dir_path = workPath(kCheckpointDir);
  std::unique_ptr<DIR, DirCloser> dir(opendir(dir_path.c_str()));
  if (!dir) {
    int err = errno;
    traceLog("couldn't open checkpoint dir %s\n", dir_path.c_str());
    return stop(-1, 31, err);
  }
  std::vector<std::string> files;
  errno = 0;
  while (const dirent *entry = readdir(dir.get())) {
    if (strncmp(entry->d_name, prefix.c_str(), prefix.size()) == 0) {
      files.push_back(dir_path + "/" + entry->d_name);
    }
    errno = 0;
  }
  if (errno != 0) return stop(-1, 31, errno);
  for (const std::string &file : files) {
    traceLog("executePolicy: delete checkpoint file %s\n", file.c_str());
    if (remove(file.c_str()) != 0) return stop(-1, 32, errno);
  }
  return 0;
}

}  // namespace

int executePolicy(const std::string &pcCmd, const std::string &exeOpt, const std::string &policyPath,
                  const std::string &opListPath) {
  const std::string options = exeOpt + " -c " + std::to_string(getpid());
  if (options.size() >= kOptionsMax) return stop(E2BIG, 0, E2BIG);
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
    if (getFatalError() != 0 || retries == kMaxRetries) return stop(status, 0, 0);
    if (updateOpList(opListPath, getpid()) != 0) traceLog("executePolicy: cannot update opList\n");
    ++retries;
    userMessage(Message::kEngineRetry, retries);
  }
}
