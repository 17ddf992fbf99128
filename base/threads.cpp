#include "base/threads.h"

#include <sched.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <thread>
#include <vector>

namespace {

constexpr int kMostThreads = 8;  // more would wait for the locks of one file system

int guarded(const std::function<int(size_t)> &work, size_t index) {
  try {
    return work(index);
  } catch (const std::exception &) {
    return -ENOMEM;
  }
}

}  // namespace

size_t usefulThreads() {
  cpu_set_t set;
  CPU_ZERO(&set);
  const int processors = sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : 1;
  return static_cast<size_t>(std::clamp(processors, 1, kMostThreads));
}

int inThreads(size_t count, const std::function<int(size_t)> &work) {
  std::vector<int> results(count, 0);
  std::vector<std::thread> threads;
  std::vector<size_t> own{0};  // the calls that the caller makes itself
  // Threads inherit this mask, so signals are delivered to the caller alone.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  for (size_t i = 1; i < count; ++i) {
    try {
      threads.emplace_back([&, i] { results[i] = guarded(work, i); });
    } catch (const std::system_error &) {
      own.push_back(i);
    }
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (count > 0)
    for (const size_t i : own) results[i] = guarded(work, i);
  for (std::thread &one : threads) one.join();
  const auto failed = std::find_if(results.begin(), results.end(), [](int rc) { return rc < 0; });
  return failed == results.end() ? 0 : *failed;
}
