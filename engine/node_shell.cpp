#include "engine/node_shell.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

#include "base/child_process.h"
#include "base/local_nodes.h"
#include "base/unique_fd.h"
#include "engine/node_list.h"
#include "engine/run_line.h"

namespace {

constexpr int kSshFailed = 255;
// After this time the part on a node that is out of reach has ended by itself (see run_line.h).
constexpr std::chrono::seconds kUntilLost = kLease + std::chrono::seconds(2);

// What parallel calls: [-l USER] HOST [--] WORD... ; the words are the command.
struct Call {
  std::string node, command;
};

bool parseCall(int argc, char **argv, Call *call) {
  std::string user;
  for (int i = 2; i < argc; ++i) {
    const std::string word = argv[i];
    if (call->node.empty() && word == "-l" && i + 1 < argc) {
      user = std::string(argv[++i]) + "@";
    } else if (call->node.empty() && word != "--") {
      call->node = user + word;
    } else if (!call->command.empty() || word != "--") {
      call->command += (call->command.empty() ? "" : " ") + word;
    }
  }
  return !call->command.empty();
}

// Creates the file if it does not exist. Returns true if this call created it.
bool mark(const std::string &path, const std::string &text) {
  const std::string fresh = path + "." + std::to_string(getpid());
  {
    std::ofstream file(fresh);
    file << text;
  }
  const bool first = link(fresh.c_str(), path.c_str()) == 0;
  unlink(fresh.c_str());
  return first;
}

int failedStatus(const std::string &state) {
  int status = 0;
  std::ifstream(state + "/" + kFailedPart) >> status;
  return status;
}

RunState stateOf(const std::string &state) {
  if (access((state + "/" + kStopRun).c_str(), F_OK) == 0) return RunState::kEndNow;
  return access((state + "/" + kFailedPart).c_str(), F_OK) == 0 ? RunState::kStartNothing
                                                                : RunState::kRun;
}

// Sends letters to the child until it ends, and kills it if the engine ends first: GNU parallel and the
// shell in between would let it go on running.
void attend(pid_t child, const UniqueFd &line, const UniqueFd &engine, const std::string &state) {
  const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
  for (;;) {
    struct pollfd ends[2] = {{process.get(), POLLIN, 0}, {engine.get(), POLLIN, 0}};
    const int ready = poll(ends, 2, static_cast<int>(kBeat.count()));
    if (ready > 0 && ends[0].revents == 0) kill(child, SIGKILL);
    if (ready > 0) return;
    const char letter = static_cast<char>(stateOf(state));
    // A failed write is no error: a child that is about to end no longer reads, and the pipe to a node
    // that is out of reach is full.
    if (write(line.get(), &letter, 1) < 0) continue;
  }
}

int runWords(std::vector<std::string> words, const UniqueFd &engine, const std::string &state) {
  std::vector<char *> arguments;
  for (std::string &word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  int line[2];
  if (pipe2(line, O_CLOEXEC | O_NONBLOCK) != 0) return kSshFailed;
  UniqueFd reading(line[0]), writing(line[1]);
  fcntl(reading.get(), F_SETFL, 0);  // the program expects an ordinary pipe
  ProcessStart start{arguments.data(), environ};
  start.standard_input = reading.get();
  pid_t child = 0;
  if (const Result r = startProcess(start, &child); !r) {
    fprintf(stderr, "ktapplypolicy: cannot start %s: %s\n", words[0].c_str(), strerror(r.err));
    return kSshFailed;
  }
  reading.reset();
  attend(child, writing, engine, state);
  int status = 0;
  while (waitpid(child, &status, 0) < 0)
    if (errno != EINTR) return kSshFailed;
  return WIFEXITED(status) ? WEXITSTATUS(status) : kSshFailed;
}

}  // namespace

int runNodeShell(int argc, char **argv) {
  const char *directory = getenv(kNodeStateVariable), *pid = getenv(kNodeEngineVariable);
  signal(SIGPIPE, SIG_IGN);
  Call call;
  if (!parseCall(argc, argv, &call) || directory == nullptr || pid == nullptr) return kSshFailed;
  const UniqueFd engine(static_cast<int>(syscall(SYS_pidfd_open, atoi(pid), 0)));
  if (!engine) return kSshFailed;
  const std::string state = directory;
  const std::string lost = state + "/" + kLostNode + call.node;
  if (const int status = failedStatus(state); status != 0) return status;
  if (access(lost.c_str(), F_OK) == 0) return kSshFailed;

  const bool local = isThisMachine(call.node);
  const int status = runWords(local ? std::vector<std::string>{"/bin/sh", "-c", call.command}
                                    : sshWords(call.node, call.command),
                              engine, state);
  if (!local && status == kSshFailed) {
    if (failedStatus(state) == 0 && mark(lost, ""))
      fprintf(stderr, "ktapplypolicy: node %s is lost; the other nodes do its records\n",
              call.node.c_str());
    std::this_thread::sleep_for(kUntilLost);
    return kSshFailed;
  }
  if (status != 0) mark(state + "/" + kFailedPart, std::to_string(status));
  return status;
}
