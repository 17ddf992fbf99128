#include "run/shell_command.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "run/stop_signal.h"
#include "run/trace_buffer.h"

namespace {

bool plainCharacter(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return std::string_view("_-./,:@%+=").find(c) != std::string_view::npos;
}

int inherited = -1;

// Makes orphans below this process its children. Not where it has children already, from before its
// program was started: it would have to wait for theirs as well.
bool adoptOrphans() {
  static const bool adopts = [] {
    siginfo_t info;
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD &&
           prctl(PR_SET_CHILD_SUBREAPER, 1) == 0;
  }();
  return adopts;
}

struct Start {
  char *const *arguments;
  int output;
  pid_t parent;
  volatile int failure;
};

// In the child, which shares the parent's memory until the shell is there: system calls only. Returns
// with the reason why there is none.
int becomeShell(const Start &start) {
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return errno;
  if (getppid() != start.parent) _exit(127);  // it died before the kernel knew of our wish
  if (start.output >= 0 && dup2(start.output, STDOUT_FILENO) < 0) return errno;
  if (inherited >= 0 && fcntl(inherited, F_SETFD, 0) != 0) return errno;
  // Caught signals must not call the parent's handlers in this half-way state.
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action;
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
      signal(number, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  if (sigprocmask(SIG_SETMASK, &none, nullptr) != 0) return errno;
  execve("/bin/sh", start.arguments, environ);
  return errno;
}

// A copy of the process would have to copy the page tables of the whole difference table.
__attribute__((noinline)) pid_t forkShell(Start &start) {
  const pid_t pid = vfork();
  if (pid == 0) {
    start.failure = becomeShell(start);
    _exit(127);
  }
  return pid;
}

// Starts "sh -c command", its standard output on `output` unless that is -1. 0 or an errno.
int startShell(const std::string &command, int output, pid_t *pid) {
  flushTraceLines();
  std::string sh = "sh", option = "-c", text = command;
  char *const arguments[] = {sh.data(), option.data(), text.data(), nullptr};
  Start start{arguments, output, getpid(), 0};
  adoptOrphans();
  // A signal to end comes before the start, which it prevents, or after it, when it is sent on.
  sigset_t all, before;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, &before);
  int failure = 0;
  if (!mayStartCommands()) {
    failure = EINTR;
  } else if ((*pid = forkShell(start)) < 0) {
    failure = errno;
  } else if ((failure = start.failure) != 0) {
    while (waitpid(*pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  } else {
    setCommandToStop(*pid);
  }
  sigprocmask(SIG_SETMASK, &before, nullptr);
  return failure;
}

int waitForShell(pid_t pid, int *status) {
  // Until it is reaped its number is its own: no signal must be sent to it afterwards.
  siginfo_t info;
  int raw = 0, failure = 0;
  while (failure == 0 && waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0)
    if (errno != EINTR) failure = errno;
  setCommandToStop(0);
  while (failure == 0 && waitpid(pid, &raw, 0) < 0)
    if (errno != EINTR) failure = errno;
  while (adoptOrphans() && (waitpid(-1, nullptr, 0) > 0 || errno == EINTR)) {
  }
  *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  if (failure == 0) return 0;
  errno = failure;
  return -1;
}

}  // namespace

std::string shellWord(std::string_view word) {
  bool plain = !word.empty();
  for (char c : word) plain = plain && plainCharacter(c);
  if (plain) return std::string(word);
  std::string quoted = "'";
  for (char c : word) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

void inheritInCommands(int fd) {
  inherited = fd;
}

int runCommand(const std::string &command, int *status) {
  pid_t pid = 0;
  if (const int failure = startShell(command, -1, &pid)) {
    errno = failure;
    return -1;
  }
  return waitForShell(pid, status);
}

int runCommandOutput(const std::string &command, std::string *output, int *status, size_t limit) {
  output->clear();
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return -1;
  pid_t pid = 0;
  const int failure = startShell(command, ends[1], &pid);
  close(ends[1]);
  if (failure) {
    close(ends[0]);
    errno = failure;
    return -1;
  }
  int read_failure = 0;
  char piece[65536];
  for (;;) {
    const ssize_t got = read(ends[0], piece, sizeof piece);
    if (got > 0) {
      const size_t room = limit - std::min(limit, output->size());
      output->append(piece, std::min(room, static_cast<size_t>(got)));
    } else if (got == 0 || errno != EINTR) {
      read_failure = got < 0 ? errno : 0;
      break;
    }
  }
  close(ends[0]);
  if (waitForShell(pid, status) != 0) return -1;
  if (read_failure) {
    errno = read_failure;
    return -1;
  }
  return 0;
}
