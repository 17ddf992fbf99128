#include "run/shell_command.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <sstream>
#include <utility>
#include <vector>

#include "base/child_process.h"
#include "base/file_io.h"
#include "base/unique_fd.h"
#include "messages/messages.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"

namespace {

constexpr size_t kDiscardBytes = 64 * 1024;

int inherited = -1;

// Makes this process the parent of orphans among its descendants. A process that already had children
// when its program started does not adopt, because it would then wait for the orphans of those as well.
bool adoptOrphans() {
  static const bool adopts = [] {
    siginfo_t info;
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD &&
           prctl(PR_SET_CHILD_SUBREAPER, 1) == 0;
  }();
  return adopts;
}

// A command that needs no shell: words that mean themselves, after "exec"; the output can be discarded.
struct PlainCommand {
  std::vector<std::string> words;  // empty: it is no such command
  bool discard = false;            // ends with "> /dev/null"
};

PlainCommand parsePlain(std::string_view text) {
  constexpr std::string_view kExec = "exec ", kRoot = "cd /;";
  constexpr std::string_view kOthers = "/._-,:@%+";
  PlainCommand plain;
  char here[2];
  if (text.starts_with(kRoot) && getcwd(here, sizeof here) != nullptr) text.remove_prefix(kRoot.size());
  while (text.starts_with(' ')) text.remove_prefix(1);
  if (!text.starts_with(kExec)) return plain;
  text.remove_prefix(kExec.size());
  for (const std::string_view redirection : {" >/dev/null", " > /dev/null"}) {
    if (!text.ends_with(redirection)) continue;
    plain.discard = true;
    text.remove_suffix(redirection.size());
  }
  if (!std::all_of(text.begin(), text.end(), [&](unsigned char c) {
        return c == ' ' || (c < 128 && isalnum(c)) ||
               kOthers.find(static_cast<char>(c)) != kOthers.npos;
      }))
    return plain;
  std::istringstream words{std::string(text)};
  for (std::string word; words >> word;) plain.words.push_back(std::move(word));
  return plain;
}

// Starts the program of a command without a shell; `like` has all but its words. ENOEXEC: there is
// none.
Result startPlain(const PlainCommand &plain, ProcessStart like, pid_t *pid) {
  if (plain.words.empty() || !plain.words[0].starts_with('/')) return errnoResult(ENOEXEC);
  UniqueFd null;
  if (plain.discard) {
    null.reset(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (!null) return failedErrno(0);
    like.standard_output = null.get();
  }
  std::vector<char *> arguments;
  for (const std::string &word : plain.words) arguments.push_back(const_cast<char *>(word.c_str()));
  arguments.push_back(nullptr);
  like.arguments = arguments.data();
  like.path = nullptr;
  return startProcess(like, pid);
}

// Starts "sh -c command", or the program itself if the command needs no shell: starting one takes a
// millisecond. Its standard output goes to `output`, unless that is -1.
Result startShell(const std::string &command, int output, pid_t *pid) {
  flushTraceLines();
  std::string sh = "sh", option = "-c", text = command;
  char *const arguments[] = {sh.data(), option.data(), text.data(), nullptr};
  ProcessStart start{arguments, environ};
  start.path = "/bin/sh";
  start.standard_output = output;
  start.inherited = inherited;
  start.default_signals = true;
  adoptOrphans();
  // Block all signals here: a stop signal then arrives either before the start, which it prevents, or
  // after it, when setCommandToStop has named the process to pass it on to.
  sigset_t all, before;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, &before);
  Result started = errnoResult(EINTR);
  if (mayStartCommands()) {
    started = startPlain(parsePlain(command), start, pid);
    // The shell also says what is wrong with a program that cannot be started.
    if (!started) started = startProcess(start, pid);
  }
  if (started) setCommandToStop(*pid);
  sigprocmask(SIG_SETMASK, &before, nullptr);
  return started;
}

Result waitForShell(pid_t pid, int *status) {
  siginfo_t info;
  int raw = 0, failure = 0;
  // WNOWAIT leaves the shell a zombie, so that its process ID stays reserved until the next line.
  while (failure == 0 && waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0)
    if (errno != EINTR) failure = errno;
  // Once the shell is reaped, its process ID can belong to another process, which must get no signal.
  setCommandToStop(0);
  while (failure == 0 && waitpid(pid, &raw, 0) < 0)
    if (errno != EINTR) failure = errno;
  // A killed shell leaves its children to this process. They must end before the next step begins.
  while (adoptOrphans() && (waitpid(-1, nullptr, 0) > 0 || errno == EINTR)) {
  }
  *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  return errnoResult(failure);
}

// Reads all output of a command but keeps only `limit` bytes: a full pipe would block the command.
Result readOutput(int fd, size_t limit, std::string *output) {
  Result r = readToEnd(fd, output, limit);
  bool more = output->size() == limit;
  for (std::string rest; r && more; more = !rest.empty()) r = readToEnd(fd, &rest, kDiscardBytes);
  return r;
}

}  // namespace

Result checkCommand(const std::string &command, size_t limit) {
  if (command.size() < limit) return {};
  userMessage(Message::kCommandTooLong, static_cast<int>(limit), command);
  return errnoResult(E2BIG);
}

void inheritInCommands(int fd) {
  inherited = fd;
}

Result runCommand(const std::string &command, int *status) {
  pid_t pid = 0;
  if (Result r = startShell(command, -1, &pid); !r) return r;
  return waitForShell(pid, status);
}

Result runCommandOutput(const std::string &command, std::string *output, int *status, size_t limit) {
  output->clear();
  int ends[2];
  if (Result r = called(pipe2(ends, O_CLOEXEC)); !r) return r;
  UniqueFd reading(ends[0]), writing(ends[1]);
  pid_t pid = 0;
  if (Result r = startShell(command, writing.get(), &pid); !r) return r;
  writing.reset();
  const Result read = readOutput(reading.get(), limit, output);
  reading.reset();
  const Result waited = waitForShell(pid, status);
  return waited ? read : waited;
}
