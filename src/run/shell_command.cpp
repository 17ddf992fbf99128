#include "run/shell_command.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

bool plainCharacter(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return std::string_view("_-./,:@%+=").find(c) != std::string_view::npos;
}

// Starts "sh -c command", its standard output on `output` unless that is -1. 0 or an errno.
int startShell(const std::string &command, int output, pid_t *pid) {
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t actions;
  posix_spawnattr_init(&attributes);
  posix_spawn_file_actions_init(&actions);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  if (output >= 0) posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  std::string sh = "sh", option = "-c", text = command;
  char *arguments[] = {sh.data(), option.data(), text.data(), nullptr};
  const int failure = posix_spawn(pid, "/bin/sh", &actions, &attributes, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  return failure;
}

int waitForShell(pid_t pid, int *status) {
  int raw = 0;
  while (waitpid(pid, &raw, 0) < 0)
    if (errno != EINTR) return -1;
  *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  return 0;
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
