#include "support/restore_run.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace testsupport {
namespace {

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct Member : Process {
  bool ending;  // a zombie, or it has closed its files and does nothing more
};

std::vector<Member> membersOf(pid_t session) {
  std::vector<Member> found;
  DIR *proc = opendir("/proc");
  if (proc == nullptr) failWithErrno("open /proc");
  while (const dirent *entry = readdir(proc)) {
    const std::string stat =
        atoi(entry->d_name) > 1 ? readAll(std::string("/proc/") + entry->d_name + "/stat") : "";
    char state = 'Z', name[32] = "";
    int pid = 0, parent = 0, its_session = 0;
    unsigned flags = 0;
    sscanf(stat.c_str(), "%d (%31[^)]) %c %d %*d %d %*d %*d %u", &pid, name, &state, &parent,
           &its_session, &flags);
    constexpr unsigned kExiting = 4;
    if (its_session == session)
      found.push_back({{pid, parent, name}, state == 'Z' || state == 'X' || flags & kExiting});
  }
  closedir(proc);
  return found;
}

[[noreturn]] void becomeProgram(char *const *argv, const RunOptions &options, int out, int err) {
  setsid();
  if (dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0)
    _exit(126);
  for (const auto &[name, value] : options.environment) setenv(name.c_str(), value.c_str(), 1);
  if (chdir(options.workingDirectory.c_str()) == 0) execv(options.program.c_str(), argv);
  fprintf(stderr, "cannot start %s: %s\n", options.program.c_str(), strerror(errno));
  _exit(127);
}

std::string tail(const std::string &text, size_t bytes) {
  return text.size() <= bytes ? text : "..." + text.substr(text.size() - bytes);
}

}  // namespace

std::string readAll(const std::string &path) {
  // If a process ends while its file in /proc is read, the rest is empty.
  const std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool waitUntil(const std::function<bool()> &condition, double seconds) {
  for (const double until = now() + seconds; !condition(); usleep(100))
    if (now() > until) return false;
  return true;
}

Running::Running(const std::vector<std::string> &arguments, const RunOptions &options)
    : out_(memfd_create("stdout", MFD_CLOEXEC)), err_(memfd_create("stderr", MFD_CLOEXEC)) {
  if (!out_.valid() || !err_.valid()) failWithErrno("memfd_create");
  // O_APPEND, because several processes write and would otherwise overwrite each other.
  for (const Descriptor *file : {&out_, &err_}) fcntl(file->get(), F_SETFL, O_APPEND);
  std::vector<char *> argv{const_cast<char *>(options.program.c_str())};
  for (const std::string &argument : arguments) argv.push_back(const_cast<char *>(argument.c_str()));
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ < 0) failWithErrno("fork");
  if (pid_ == 0) becomeProgram(argv.data(), options, out_.get(), err_.get());
}

bool Running::ended() {
  if (!reaped_) reaped_ = waitpid(pid_, &status_, WNOHANG) == pid_;
  return reaped_;
}

int Running::exitStatus() const {
  return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
}

int Running::signalNumber() const {
  return WIFSIGNALED(status_) ? WTERMSIG(status_) : 0;
}

std::string Running::out() const {
  return readAll(procPath(out_.get()));
}

std::string Running::err() const {
  return readAll(procPath(err_.get()));
}

std::vector<Process> Running::living() const {
  std::vector<Process> found;
  for (const Member &member : membersOf(pid_))
    if (!member.ending) found.push_back(member);
  return found;
}

pid_t Running::find(const std::string &role) const {
  pid_t engine = 0;
  const std::vector<Process> all = living();
  if (role == "master") return pid_;
  for (const Process &process : all)
    if (process.parent == pid_ && process.name == "ktapplypolicy") engine = process.pid;
  if (role == "engine" || engine == 0) return engine;
  for (const Process &process : all)
    if (process.parent == engine && process.name == "fsetrestore") return process.pid;
  return 0;
}

bool Running::endAll() {
  const auto gone = [&] {
    // Right after the start the program has no session of its own yet.
    if (!ended()) kill(pid_, SIGKILL);
    const std::vector<Member> left = membersOf(pid_);
    for (const Member &member : left) {
      kill(member.pid, SIGKILL);
      // As process 1 of its namespace, the test inherits orphans.
      if (member.pid != pid_) waitpid(member.pid, nullptr, WNOHANG);
    }
    return reaped_ && left.empty();
  };
  return waitUntil(gone, 10);
}

RunResult runProgram(const std::vector<std::string> &arguments, const RunOptions &options) {
  const double start = now();
  Running run(arguments, options);
  const bool killed = options.killAfterSeconds >= 0;
  const bool ended = waitUntil([&] { return run.ended(); },
                               killed ? options.killAfterSeconds : options.timeoutSeconds);
  RunResult result;
  result.seconds = now() - start;
  result.timedOut = !ended && !killed;
  if (ended) result.processesLeft = static_cast<int>(run.living().size());
  if (!run.endAll()) throw std::runtime_error("processes of a killed run do not end");
  result.exitStatus = run.exitStatus();
  result.signal = run.signalNumber();
  result.out = run.out();
  result.err = run.err();
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
  snprintf(head, sizeof head, "exit %d, signal %d%s, %d processes left, %.2f s\n", exitStatus, signal,
           timedOut ? ", timed out" : "", processesLeft, seconds);
  return head + std::string("--- stderr\n") + tail(err, tailBytes) + "\n--- stdout\n" +
         tail(out, tailBytes) + "\n";
}

}  // namespace testsupport
