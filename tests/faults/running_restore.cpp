#include "faults/running_restore.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "support/restore_run.h"

namespace faults {

std::string readAll(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

bool waitUntil(const std::function<bool()> &condition, double seconds) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > until) return false;
    usleep(100);
  }
  return true;
}

Running::Running(const std::string &device, const std::string &fileset, const std::string &snapshot,
                 int ignored)
    : said_("/mnt/said") {
  pid_ = fork();
  if (pid_ != 0) return;
  setsid();
  if (ignored) signal(ignored, SIG_IGN);
  const int out = open(said_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
  if (out < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0 || chdir("/") != 0) _exit(126);
  execl(testsupport::kRestoreProgram, "fsetrestore", device.c_str(), "-j", fileset.c_str(), "-o",
        snapshot.c_str(), "-m", "3", "-B", "2", nullptr);
  _exit(127);
}

// The test is process 1 of its namespace and inherits what the run leaves.
Running::~Running() {
  const auto gone = [&] {
    const std::vector<Process> left = living();
    for (const Process &process : left) kill(process.pid, SIGKILL);
    return left.empty();
  };
  waitUntil(gone, 10);
  for (pid_t pid = pid_; pid > 0;) pid = waitpid(-pid_, nullptr, WNOHANG);
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

std::vector<Process> Running::living() const {
  std::vector<Process> found;
  DIR *proc = opendir("/proc");
  while (const dirent *entry = readdir(proc)) {
    const pid_t pid = atoi(entry->d_name);
    char state = 'Z', name[32] = "";
    int number = 0, parent = 0, session = 0;
    const std::string stat = pid > 1 ? readAll("/proc/" + std::to_string(pid) + "/stat") : "";
    unsigned flags = 0;
    sscanf(stat.c_str(), "%d (%31[^)]) %c %d %*d %d %*d %*d %u", &number, name, &state, &parent,
           &session, &flags);
    // One that exits has closed its files and will do nothing more, but is no zombie yet.
    constexpr unsigned kExiting = 4;
    if (session == pid_ && state != 'Z' && state != 'X' && !(flags & kExiting))
      found.push_back({pid, parent, name});
  }
  closedir(proc);
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

std::vector<std::string> workDirs(const std::string &root) {
  std::vector<std::string> found;
  DIR *dir = opendir(root.c_str());
  if (!dir) return found;
  while (const dirent *entry = readdir(dir))
    if (strncmp(entry->d_name, "RestoreTemp", 11) == 0) found.push_back(root + "/" + entry->d_name);
  closedir(dir);
  return found;
}

bool hasBegun(Running &run, const std::string &root, const Stage &stage) {
  if (run.ended()) return false;
  if (strcmp(stage.name, "clean-up") == 0) return run.said().find(stage.begins) != std::string::npos;
  const std::vector<std::string> dirs = workDirs(root);
  return !dirs.empty() && readAll(dirs[0] + "/ErrorLog").find(stage.begins) != std::string::npos;
}

bool reach(Running &run, const std::string &root, const Stage &stage) {
  return waitUntil([&] { return run.ended() || hasBegun(run, root, stage); }, 20) && !run.ended();
}

}  // namespace faults
