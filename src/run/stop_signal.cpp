#include "run/stop_signal.h"

#include <signal.h>

#include <atomic>
#include <cerrno>

namespace {

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

std::atomic<int> arrived{0};
std::atomic<pid_t> command{0};
std::atomic<bool> ending{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void noteStop(int number) {
  const int saved = errno;
  int none = 0;
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
  // The last commands inherit this: they share the terminal with us.
  for (const int number : kStopSignals) signal(number, SIG_IGN);
}

void setCommandToStop(pid_t pid) {
  command = pid;
}

bool mayStartCommands() {
  return arrived == 0 || ending;
}
