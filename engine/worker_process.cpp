#include "engine/worker_process.h"

#include <fcntl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <initializer_list>
#include <string_view>

#include "base/child_process.h"
#include "engine/worker_slots.h"

namespace {

std::vector<char *> pointers(std::vector<std::string> &words) {
  std::vector<char *> result;
  for (std::string &word : words) result.push_back(word.data());
  result.push_back(nullptr);
  return result;
}

// Returns the environment of this process with `slot` in place of its own slot.
std::vector<std::string> workerEnvironment(const std::string &slot) {
  const std::string start = std::string(kWorkerSlotVariable) + "=";
  std::vector<std::string> result = {start + slot};
  for (char **at = environ; *at != nullptr; ++at)
    if (!std::string_view(*at).starts_with(start)) result.emplace_back(*at);
  return result;
}

}  // namespace

RunSignals::RunSignals() {
  // An inherited SIG_IGN for SIGCHLD would let the kernel reap children before the engine sees their
  // status.
  signal(SIGCHLD, SIG_DFL);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGCHLD);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    struct sigaction action;
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
      sigaddset(&set, number);
  }
  sigprocmask(SIG_BLOCK, &set, &before_);
  fd_.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

Result WorkerStarter::start(std::vector<std::string> argv, const std::string &slot, pid_t *child) {
  if (!input_) input_.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!input_) return errnoResult(errno);
  std::vector<std::string> variables = workerEnvironment(slot);
  const std::vector<char *> arguments = pointers(argv), environment = pointers(variables);
  ProcessStart start{arguments.data(), environment.data()};
  start.standard_input = input_.get();
  start.mask = &mask_;
  start.own_group = true;
  return startProcess(start, child);
}

std::vector<pid_t> childProcesses() {
  std::vector<pid_t> children;
  const std::string path = "/proc/self/task/" + std::to_string(getpid()) + "/children";
  FILE *file = fopen(path.c_str(), "re");
  if (file == nullptr) return children;
  pid_t pid = 0;
  while (fscanf(file, "%d", &pid) == 1) children.push_back(pid);
  fclose(file);
  return children;
}
