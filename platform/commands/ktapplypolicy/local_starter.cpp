#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "commands/ktapplypolicy/worker_starter.h"

namespace kest {
namespace {

struct Start {
  char *const *arguments;
  char *const *environment;
  const sigset_t *mask;
  int input;
  pid_t engine;
  volatile int failure;
};

// In the child, which shares this process's memory until the program is there: system calls only. Comes
// back only with the reason why it did not start.
int becomeWorker(const Start &start) {
  // The engine may have been killed before the kernel knew that we want to die with it.
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) < 0) return errno;
  if (getppid() != start.engine) _exit(1);
  if (setpgid(0, 0) < 0 || dup2(start.input, STDIN_FILENO) < 0) return errno;
  if (sigprocmask(SIG_SETMASK, start.mask, nullptr) < 0) return errno;
  execve(start.arguments[0], start.arguments, start.environment);
  return errno;
}

// A copy of the process would cost more than the rest of the start.
__attribute__((noinline)) pid_t forkWorker(Start &start) {
  const pid_t pid = vfork();
  if (pid == 0) {
    start.failure = becomeWorker(start);
    _exit(127);
  }
  return pid;
}

std::vector<char *> pointers(std::vector<std::string> &words) {
  std::vector<char *> result;
  for (std::string &word : words) result.push_back(word.data());
  result.push_back(nullptr);
  return result;
}

// This process's environment with the command's variables instead of its own of the same names.
std::vector<std::string> environmentOf(const WorkerCommand &command) {
  std::vector<std::string> result;
  for (const auto &[name, value] : command.environment) result.push_back(name + "=" + value);
  for (char **at = environ; *at; at++) {
    const std::string_view name = std::string_view(*at).substr(0, strcspn(*at, "="));
    const bool set = std::any_of(command.environment.begin(), command.environment.end(),
                                 [name](const auto &variable) { return variable.first == name; });
    if (!set) result.emplace_back(*at);
  }
  return result;
}

}  // namespace

int LocalStarter::start(const WorkerCommand &command, pid_t *child) {
  if (!input_) input_.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!input_) return -errno;
  std::vector<std::string> words = command.argv, variables = environmentOf(command);
  const std::vector<char *> arguments = pointers(words), environment = pointers(variables);
  Start start{arguments.data(), environment.data(), &mask_, input_.get(), getpid(), 0};
  const pid_t pid = forkWorker(start);
  if (pid < 0) return -errno;
  if (start.failure == 0) {
    *child = pid;
    return 0;
  }
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  return -start.failure;
}

}  // namespace kest
