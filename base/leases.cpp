#include "base/leases.h"

#include <fcntl.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fstream>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kFirstPause{1}, kLongestPause{50};
constexpr seconds kDefaultBreakTime{45};

// 0: the kernel breaks no lease.
seconds breakTime() {
  int time = 0;
  std::ifstream("/proc/sys/fs/lease-break-time") >> time;
  return seconds(std::max(time, 0));
}

}  // namespace

int openPastLeases(const std::function<int(int waiting)> &open) {
  int fd = open(O_NONBLOCK);
  if (fd >= 0 || errno != EWOULDBLOCK) return fd;
  // The attempt has told the holder, and the time is running.
  const seconds time = breakTime();
  const Clock::time_point end =
      Clock::now() + (time > seconds(0) ? time : kDefaultBreakTime) - kLongestPause;
  for (milliseconds pause = kFirstPause; Clock::now() < end;
       pause = std::min(2 * pause, kLongestPause)) {
    const timespec duration{0, std::chrono::nanoseconds(pause).count()};
    if (nanosleep(&duration, nullptr) != 0) return -1;
    fd = open(O_NONBLOCK);
    if (fd >= 0 || errno != EWOULDBLOCK) return fd;
  }
  return time > seconds(0) ? open(0) : fd;
}
