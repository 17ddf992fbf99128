#include "engine/run_line.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <thread>
#include <vector>

#include "engine/worker_process.h"

namespace {

// Kills the workers and ends the process. Their own descendants die with them. Children that ended stay
// in the list if the main thread cannot reap them, because it waits for the file system.
[[noreturn]] void endAtOnce() {
  constexpr int kRounds = 50;
  fprintf(stderr, "ktapplypolicy: this node has lost the run, its workers are killed\n");
  std::vector<pid_t> children = childProcesses();
  for (int round = 0; round < kRounds && !children.empty(); ++round) {
    for (const pid_t child : children) {
      kill(-child, SIGKILL);
      kill(child, SIGKILL);
    }
    std::this_thread::sleep_for(kBeat / 2);
    children = childProcesses();
  }
  _exit(1);
}

}  // namespace

// The thread is detached, because it ends only with the process.
RunLine::RunLine() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  std::thread([this] { read(); }).detach();
}

RunState RunLine::state() {
  uint64_t count = 0;
  if (::read(event_.get(), &count, sizeof count) < 0) return state_;
  return state_;
}

void RunLine::set(RunState state) {
  if (state == state_ || state_ == RunState::kEndNow) return;
  state_ = state;
  const uint64_t one = 1;
  if (write(event_.get(), &one, sizeof one) < 0) return;
}

void RunLine::read() {
  for (;;) {
    struct pollfd polled = {STDIN_FILENO, POLLIN, 0};
    const int ready = poll(&polled, 1, static_cast<int>(kLease / std::chrono::milliseconds(1)));
    if (ready < 0 && errno == EINTR) continue;
    char letters[64];
    const ssize_t count = ready > 0 ? ::read(STDIN_FILENO, letters, sizeof letters) : 0;
    if (count <= 0) endAtOnce();
    for (const char letter :
         {static_cast<char>(RunState::kStartNothing), static_cast<char>(RunState::kEndNow)})
      for (ssize_t i = 0; i < count; ++i)
        if (letters[i] == letter) set(static_cast<RunState>(letter));
  }
}
