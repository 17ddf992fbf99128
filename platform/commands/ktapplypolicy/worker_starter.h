// Starting one worker: the only place that knows where workers run.
#pragma once

#include <string>
#include <vector>

#include <signal.h>
#include <sys/types.h>

#include "btrfs/unique_fd.h"

namespace kest {

// One program start: argv and the variables that are set on top of this process's environment.
struct WorkerCommand {
  std::vector<std::string> argv;  // argv[0] is the program's path
  std::vector<std::pair<std::string, std::string>> environment;
};

class WorkerStarter {
 public:
  virtual ~WorkerStarter() = default;

  // Starts the program and returns at once: 0 and the child process that stands for it here (its
  // exit status is the worker's, a signal sent to its process group reaches the worker), or -errno
  // when it could not be started. The child ends when this process is killed.
  virtual int start(const WorkerCommand &command, pid_t *child) = 0;
};

// Runs workers on this machine, each in a process group of its own, with /dev/null as standard input
// and `mask` as signal mask.
class LocalStarter : public WorkerStarter {
 public:
  explicit LocalStarter(const sigset_t &mask) : mask_(mask) {}
  int start(const WorkerCommand &command, pid_t *child) override;

 private:
  sigset_t mask_;
  UniqueFd input_;
};

}  // namespace kest
