#include "support/restore_run.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/descriptor.h"

namespace testsupport {
namespace {

double now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::string readWhole(int fd) {
  std::string text;
  char buffer[65536];
  off_t offset = 0;
  ssize_t n;
  while ((n = pread(fd, buffer, sizeof buffer, offset)) > 0) {
    text.append(buffer, static_cast<size_t>(n));
    offset += n;
  }
  return text;
}

// Session and state of a process, from /proc; false where it is gone.
bool sessionOf(const char *pid, pid_t *session, char *state) {
  std::string path = std::string("/proc/") + pid + "/stat";
  Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return false;
  char text[1024];
  ssize_t n = read(fd.get(), text, sizeof text - 1);
  if (n <= 0) return false;
  text[n] = '\0';
  const char *afterName = strrchr(text, ')');  // the name may hold blanks and parentheses
  int parent, group;
  return afterName != nullptr &&
         sscanf(afterName + 1, " %c %d %d %d", state, &parent, &group, session) == 4;
}

std::vector<pid_t> livingIn(pid_t session) {
  std::vector<pid_t> pids;
  DIR *proc = opendir("/proc");
  if (proc == nullptr) failWithErrno("open /proc");
  while (dirent *entry = readdir(proc)) {
    pid_t itsSession;
    char state;
    if (entry->d_name[0] < '1' || entry->d_name[0] > '9') continue;
    if (sessionOf(entry->d_name, &itsSession, &state) && itsSession == session && state != 'Z')
      pids.push_back(atoi(entry->d_name));
  }
  closedir(proc);
  return pids;
}

// In the private namespace the test is process 1 and inherits the orphans.
void reapOrphans() {
  if (getpid() != 1) return;
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
}

void killSession(pid_t session) {
  double until = now() + 10;
  for (;;) {
    std::vector<pid_t> pids = livingIn(session);
    if (pids.empty()) return;
    for (pid_t pid : pids) kill(pid, SIGKILL);
    reapOrphans();
    if (now() > until) {
      errno = ETIME;
      failWithErrno("processes of a killed run do not end");
    }
    usleep(1000);
  }
}

// True where the process ended within the time; below 0 waits for ever.
bool waitEnd(int pidFd, double seconds) {
  double until = now() + seconds;
  for (;;) {
    double left = until - now();
    timespec ts{static_cast<time_t>(left < 0 ? 0 : left), 0};
    ts.tv_nsec = static_cast<long>((left < 0 ? 0 : left - static_cast<double>(ts.tv_sec)) * 1e9);
    pollfd one{pidFd, POLLIN, 0};
    int n = ppoll(&one, 1, &ts, nullptr);
    if (n > 0) return true;
    if (n < 0 && errno != EINTR) failWithErrno("poll");
    if (left <= 0) return false;
  }
}

[[noreturn]] void becomeProgram(char *const *argv, const RunOptions &options, int out, int err) {
  setsid();
  int null = open("/dev/null", O_RDONLY);
  if (dup2(null, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(126);
  for (const auto &[name, value] : options.environment) setenv(name.c_str(), value.c_str(), 1);
  if (chdir(options.workingDirectory.c_str()) != 0) {
    perror("chdir");
    _exit(126);
  }
  execv(options.program.c_str(), argv);
  fprintf(stderr, "cannot start %s: %s\n", options.program.c_str(), strerror(errno));
  _exit(127);
}

std::string tail(const std::string &text, size_t bytes) {
  return text.size() <= bytes ? text : "..." + text.substr(text.size() - bytes);
}

}  // namespace

RunResult runProgram(const std::vector<std::string> &arguments, const RunOptions &options) {
  Descriptor out(memfd_create("stdout", MFD_CLOEXEC)), err(memfd_create("stderr", MFD_CLOEXEC));
  if (!out.valid() || !err.valid()) failWithErrno("memfd_create");
  // Several processes write: the position must be the file's end, or they overwrite each other.
  fcntl(out.get(), F_SETFL, O_APPEND);
  fcntl(err.get(), F_SETFL, O_APPEND);
  std::vector<char *> argv{const_cast<char *>(options.program.c_str())};
  for (const std::string &argument : arguments) argv.push_back(const_cast<char *>(argument.c_str()));
  argv.push_back(nullptr);

  RunResult result;
  double start = now();
  pid_t pid = fork();
  if (pid < 0) failWithErrno("fork");
  if (pid == 0) becomeProgram(argv.data(), options, out.get(), err.get());
  Descriptor pidFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (!pidFd.valid()) failWithErrno("pidfd_open");

  if (options.killAfterSeconds >= 0) {
    result.killed = !waitEnd(pidFd.get(), options.killAfterSeconds);
  } else {
    result.timedOut = !waitEnd(pidFd.get(), options.timeoutSeconds);
  }
  if (result.killed || result.timedOut) kill(pid, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) failWithErrno("waitpid");
  result.seconds = now() - start;
  if (!result.killed && !result.timedOut) result.processesLeft = static_cast<int>(livingIn(pid).size());
  killSession(pid);
  reapOrphans();
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  result.out = readWhole(out.get());
  result.err = readWhole(err.get());
  return result;
}

RunResult runRestore(const std::string &device, const std::string &fileset, const std::string &snapshot,
                     const std::vector<std::string> &further, const RunOptions &options) {
  std::vector<std::string> arguments{device, "-j", fileset, "-o", snapshot};
  arguments.insert(arguments.end(), further.begin(), further.end());
  return runProgram(arguments, options);
}

std::string RunResult::describe(size_t tailBytes) const {
  char head[160];
  snprintf(head, sizeof head, "exit %d, signal %d%s%s, %d processes left, %.2f s\n", exitStatus, signal,
           timedOut ? ", timed out" : "", killed ? ", killed" : "", processesLeft, seconds);
  return head + std::string("--- stderr\n") + tail(err, tailBytes) + "\n--- stdout\n" +
         tail(out, tailBytes) + "\n";
}

}  // namespace testsupport
