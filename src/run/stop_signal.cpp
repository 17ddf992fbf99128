#include "run/stop_signal.h"

#include <signal.h>

#include <atomic>
#include <cerrno>

namespace {

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

// All of this is written or read by a signal handler, so it must be lock-free.
std::atomic<int> arrived{0};
std::atomic<pid_t> command{0};
std::atomic<bool> ending{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void noteStop(int number) {
  const int saved = errno;
  int none = 0;
  // The first signal is the one to report.
  arrived.compare_exchange_strong(none, number);
  if (const pid_t pid = command; pid > 0) kill(pid, SIGTERM);
  errno = saved;
}

}  // namespace

void catchStopSignals() {
  for (const int number : kStopSignals) {
    struct sigaction action {};
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = noteStop;
    // Loops ask stopSignal() themselves, so interrupted system calls can continue.
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (const int other : kStopSignals) sigaddset(&action.sa_mask, other);
    sigaction(number, &action, nullptr);
  }
}

int stopSignal() {
  return arrived;
}

void ignoreStopSignals() {
  ending = true;
  // The last commands share the terminal with this process, so they must ignore the signals, too. A
  // signal that is ignored stays so in a program that is started.
  for (const int number : kStopSignals) signal(number, SIG_IGN);
}

void setCommandToStop(pid_t pid) {
  command = pid;
}

bool mayStartCommands() {
  return arrived == 0 || ending;
}
