#include "engine/node_run.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "base/file_io.h"
#include "engine/node_shell.h"
#include "engine/worker_process.h"
#include "formats/program_names.h"
#include "formats/shell_words.h"
#include "formats/work_names.h"

namespace {

constexpr char kLoginFile[] = "nodes", kPartFile[] = "parts", kJobLog[] = "joblog";
constexpr int kLookMs = 100;
// Signals within this time after the first one belong to the same request to end.
constexpr std::chrono::seconds kPatience(2);
// After this time no process of the run works on any node, even if a node has not confirmed its end.
constexpr std::chrono::seconds kLongest = kLease + std::chrono::seconds(5);

void complain(const std::string &text) {
  fprintf(stderr, "ktapplypolicy: %s\n", text.c_str());
}

}  // namespace

NodeRun::NodeRun(const Options &options, const RunDirectory *directory, const RunSignals *signals,
                 std::vector<Node> nodes)
    : options_(options),
      directory_(directory),
      signals_(signals),
      nodes_(std::move(nodes)),
      earlier_children_(childProcesses()) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
}

NodeRun::~NodeRun() {
  std::error_code ignored;
  if (!marker_.empty()) directory_->remove(marker_);
  if (!state_.empty()) std::filesystem::remove_all(state_, ignored);
}

RunOutcome NodeRun::run(const std::vector<ListPart> &parts) {
  pid_t parallel = 0;
  Result r = prepare(parts);
  if (r) r = start(&parallel);
  if (r) {
    follow(parallel);
    noteLost();
    readJobLog(parts);
  } else {
    complain(std::string("cannot start the run of several nodes: ") + strerror(r.err));
    outcome_.own_error = r.err;
  }
  return outcome_;
}

Result NodeRun::writeState(const std::string &name, const std::string &text) const {
  const UniqueFd fd(open((state_ + "/" + name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  return fd ? writeAll(fd.get(), text) : failedErrno(0);
}

Result NodeRun::prepare(const std::vector<ListPart> &parts) {
  const char *chosen = getenv("TMPDIR");
  std::string path = std::string(chosen != nullptr ? chosen : "/tmp") + "/ktapplypolicy.XXXXXX";
  if (mkdtemp(path.data()) == nullptr) return failedErrno(0);
  state_ = path;
  UniqueFd fd;
  const std::string marker = directory_->path() + "/" + kNodeRun;
  if (Result r = directory_->openFile(marker, O_WRONLY | O_CREAT, &fd); !r) return r;
  marker_ = marker;
  std::string logins, commands;
  for (const Node &node : nodes_) logins += "1/" + node.name + "\n";
  for (const ListPart &part : parts) commands += partCommand(part) + '\0';
  if (Result r = writeState(kLoginFile, logins); !r) return r;
  return writeState(kPartFile, commands);
}

// Returns the command of a part for a shell of the node. parallel takes it from a file of arguments
// and quotes it for the shells on the way. It replaces nothing in it, so a path may contain "{}".
std::string NodeRun::partCommand(const ListPart &part) const {
  PartOrder order;
  order.from = part.from;
  order.to = part.to;
  order.directory = directory_->inode();
  order.nodes = nodes_;
  std::string command;
  if (const char *most = getenv(kMaxWorkersVariable); most != nullptr && *most != '\0')
    command = std::string("export ") + kMaxWorkersVariable + "=" + shellWord(most) + ";";
  command += std::string("exec ") + kEngine;
  for (const std::string &word :
       {options_.device, std::string("-P"), options_.policy, std::string("-g"), options_.directory,
        std::string("-r"), options_.list, std::string("-B"), std::to_string(options_.batch_size),
        std::string("--part"), formatPartOrder(order)})
    command += " " + shellWord(word);
  return command;
}

Result NodeRun::start(pid_t *parallel) {
  // A part may fail once on every lost node before another node does it.
  const std::string retries = std::to_string(nodes_.size() + 1);
  for (const char *name : {"PARALLEL", "PARALLEL_SSH", "PARALLEL_ENV"}) unsetenv(name);
  setenv("PARALLEL_HOME", state_.c_str(), 1);
  setenv("PARALLEL_SHELL", "/bin/sh", 1);
  setenv("PARALLEL_REMOTE_TMPDIR", "/tmp", 1);
  setenv("TMPDIR", state_.c_str(), 1);
  setenv(kNodeStateVariable, state_.c_str(), 1);
  setenv(kNodeEngineVariable, std::to_string(getpid()).c_str(), 1);
  WorkerStarter starter(signals_->workerMask());
  return starter.start({kParallel, "--plain", "--will-cite", "--null", "--ungroup", "--arg-file",
                        state_ + "/" + kPartFile, "--sshloginfile", state_ + "/" + kLoginFile, "--jobs",
                        "1", "--retries", retries, "--halt", "soon,fail=1", "--joblog",
                        state_ + "/" + kJobLog, "--ssh", std::string(kEngine) + " --node-shell"},
                       "", parallel);
}

// Waits until parallel and everything that it has left here have ended.
void NodeRun::follow(pid_t parallel) {
  for (bool running = true; running;) {
    struct pollfd polled = {signals_->fd(), POLLIN, 0};
    if (poll(&polled, 1, kLookMs) < 0 && errno != EINTR) usleep(kLookMs * 1000);
    handleSignals(parallel);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    std::vector<pid_t> children = childProcesses();
    std::erase_if(children, [&](pid_t pid) {
      return std::find(earlier_children_.begin(), earlier_children_.end(), pid) !=
             earlier_children_.end();
    });
    running = !children.empty();
    if (outcome_.stopped && std::chrono::steady_clock::now() - stopped_at_ > kLongest)
      for (const pid_t child : children) kill(child, SIGKILL);
  }
}

// Finds out which nodes the node shells have marked as lost.
void NodeRun::look() {
  for (const Node &node : nodes_)
    if (!node.isLocal() && access((state_ + "/" + kLostNode + node.name).c_str(), F_OK) == 0)
      lost_.insert(node.number);
}

void NodeRun::handleSignals(pid_t parallel) {
  struct signalfd_siginfo info;
  while (read(signals_->fd(), &info, sizeof info) == sizeof info) {
    if (info.ssi_signo == SIGCHLD) continue;
    complain(strsignal(static_cast<int>(info.ssi_signo)));
    const auto now = std::chrono::steady_clock::now();
    if (!outcome_.stopped) stopped_at_ = now;
    // parallel starts nothing more after the first SIGTERM. Killing it lets the node shells end ssh.
    const bool again = outcome_.stopped && now - stopped_at_ >= kPatience;
    if (again)
      kill(-parallel, SIGKILL);
    else if (!outcome_.stopped)
      kill(parallel, SIGTERM);
    if (!outcome_.stopped) (void)writeState(kStopRun, "");  // without it the run ends, too, but later
    outcome_.stopped = true;
  }
}

// Names the lost nodes in the run directory, so that further engine runs do without them.
void NodeRun::noteLost() {
  look();
  std::string names;
  for (const Node &node : nodes_)
    if (lost_.count(node.number) != 0 && !node.isLocal()) names += node.name + "\n";
  UniqueFd fd;
  if (names.empty()) return;
  const Result opened =
      directory_->openFile(directory_->path() + "/" + kLostNodes, O_WRONLY | O_CREAT | O_APPEND, &fd);
  const Result written = opened ? writeAll(fd.get(), names) : opened;
  if (written) return;
  complain(std::string("cannot write ") + kLostNodes + ": " + strerror(written.err));
  outcome_.own_error = written.err;
}

// Every part has a line once it is done or has failed for good: number, node, start, time, sent,
// received, exit status, signal, command.
void NodeRun::readJobLog(const std::vector<ListPart> &parts) {
  std::ifstream log(state_ + "/" + kJobLog);
  std::vector<bool> done(parts.size());
  for (std::string line; std::getline(log, line);) {
    unsigned long long number = 0;
    int status = 0, signal = 0;
    if (sscanf(line.c_str(), "%llu %*s %*s %*s %*s %*s %d %d", &number, &status, &signal) != 3 ||
        number == 0 || number > parts.size())
      continue;
    if (status == 0 && signal == 0) done[number - 1] = true;
    outcome_.full = outcome_.full || isFull(status);
  }
  int first = 0;
  std::ifstream(state_ + "/" + kFailedPart) >> first;
  outcome_.full = outcome_.full || isFull(first);
  for (size_t i = 0; i < parts.size(); ++i) {
    if (done[i]) {
      ++outcome_.batches;
      outcome_.records += parts[i].records;
    } else {
      ++outcome_.failed;
    }
  }
}
