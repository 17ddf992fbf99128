#include "base/child_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>

namespace {

struct Child {
  const ProcessStart &start;
  pid_t parent;
  volatile int failure;  // an errno; the child writes it into the memory that both share
};

// Makes `fd` the descriptor `place` of the new program.
bool putAt(int fd, int place) {
  // dup2 of a descriptor onto itself would leave it close-on-exec.
  return fd == place ? fcntl(fd, F_SETFD, 0) == 0 : dup2(fd, place) >= 0;
}

// Resets caught signals. A handler of the parent that ran in the child would change the parent's
// memory.
void forgetHandlers() {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action;
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
      signal(number, SIG_DFL);
  }
}

// Runs in the child, which shares the parent's memory until execve, so it may only make system calls.
// Returns the errno if the program could not be executed.
int becomeProgram(const Child &child) {
  const ProcessStart &start = child.start;
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return errno;
  // The parent may have died before PR_SET_PDEATHSIG took effect.
  if (getppid() != child.parent) _exit(127);
  if (start.own_group && setpgid(0, 0) != 0) return errno;
  if (start.standard_input >= 0 && !putAt(start.standard_input, STDIN_FILENO)) return errno;
  if (start.standard_output >= 0 && !putAt(start.standard_output, STDOUT_FILENO)) return errno;
  if (start.standard_error >= 0 && !putAt(start.standard_error, STDERR_FILENO)) return errno;
  if (start.inherited >= 0 && fcntl(start.inherited, F_SETFD, 0) != 0) return errno;
  if (start.default_signals) forgetHandlers();
  sigset_t none;
  sigemptyset(&none);
  if (sigprocmask(SIG_SETMASK, start.mask != nullptr ? start.mask : &none, nullptr) != 0) return errno;
  execve(start.path != nullptr ? start.path : start.arguments[0], start.arguments, start.environment);
  return errno;
}

// vfork is used because fork takes longer the more memory the master has, and because posix_spawn
// cannot set PR_SET_PDEATHSIG.
//
// This must not be inlined: the child of vfork shares the stack, and must not change variables of the
// caller.
__attribute__((noinline)) pid_t forkChild(Child &child) {
  const pid_t pid = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork): see above
  if (pid == 0) {
    // The analyzer allows only execve and _exit here; becomeProgram makes nothing but system calls.
    child.failure = becomeProgram(child);  // NOLINT(clang-analyzer-unix.Vfork)
    _exit(127);
  }
  return pid;
}

}  // namespace

Result startProcess(const ProcessStart &start, pid_t *pid) {
  Child child{start, getpid(), 0};
  const pid_t started = forkChild(child);
  if (started < 0) return errnoResult(errno);
  // vfork returns in the parent only after execve or _exit in the child, so `failure` is final here.
  if (child.failure != 0) {
    while (waitpid(started, nullptr, 0) < 0 && errno == EINTR) {
    }
    return errnoResult(child.failure);
  }
  *pid = started;
  return {};
}
