#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "btrfs/unique_fd.h"
#include "commands/ktapplypolicy/worker_starter.h"

namespace kest {
namespace {

// Runs in the child; comes back only with the reason why the program did not start.
int becomeWorker(const WorkerCommand &command, const sigset_t &mask, pid_t engine) {
  // The engine may have been killed before the kernel knew that we want to die with it.
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) < 0) return errno;
  if (getppid() != engine) _exit(1);
  if (setpgid(0, 0) < 0) return errno;
  int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (null < 0 || dup2(null, STDIN_FILENO) < 0) return errno;
  for (const auto &[name, value] : command.environment) {
    if (setenv(name.c_str(), value.c_str(), 1) < 0) return errno;
  }
  std::vector<char *> argv;
  for (const std::string &word : command.argv) argv.push_back(const_cast<char *>(word.c_str()));
  argv.push_back(nullptr);
  if (sigprocmask(SIG_SETMASK, &mask, nullptr) < 0) return errno;
  execv(argv[0], argv.data());
  return errno;
}

}  // namespace

int LocalStarter::start(const WorkerCommand &command, pid_t *child) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) < 0) return -errno;
  UniqueFd from_child(ends[0]), to_parent(ends[1]);
  pid_t engine = getpid();
  pid_t pid = fork();
  if (pid < 0) return -errno;
  if (pid == 0) {
    int error = becomeWorker(command, mask_, engine);
    ssize_t written = write(to_parent.get(), &error, sizeof(error));
    _exit(written == sizeof(error) ? 127 : 126);
  }
  to_parent.reset();
  // The end of the pipe is closed by a successful exec.
  int error = 0;
  ssize_t got;
  do {
    got = read(from_child.get(), &error, sizeof(error));
  } while (got < 0 && errno == EINTR);
  if (got != sizeof(error)) {
    *child = pid;
    return 0;
  }
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  return -error;
}

bool nodesAreLocal(const std::string &nodes, std::string *foreign) {
  char buffer[256] = "";
  gethostname(buffer, sizeof(buffer) - 1);
  std::string host = buffer;
  std::string short_host = host.substr(0, host.find('.'));
  size_t at = 0;
  while (at <= nodes.size()) {
    size_t end = std::min(nodes.find(',', at), nodes.size());
    std::string node = nodes.substr(at, end - at);
    if (node != "all" && node != "localhost" &&
        (node.empty() || (node != host && node != short_host))) {
      *foreign = node;
      return false;
    }
    at = end + 1;
  }
  return true;
}

}  // namespace kest
