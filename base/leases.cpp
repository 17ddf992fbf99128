#include "base/leases.h"

#include <fcntl.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kFirstPause{1}, kLongestPause{50};
constexpr seconds kDefaultBreakTime{45};

// Returns 0 if the kernel breaks no lease.
seconds breakTime() {
  int time = 0;
  std::ifstream("/proc/sys/fs/lease-break-time") >> time;
  return seconds(std::max(time, 0));
}

}  // namespace

std::unordered_set<uint64_t> leasedInodes() {
  std::unordered_set<uint64_t> inodes;
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    // 1: LEASE ACTIVE WRITE 4711 00:2a:257 0 EOF
    char kind[16];
    unsigned long long ino = 0;
    if (sscanf(line.c_str(), "%*s %15s %*s %*s %*s %*x:%*x:%llu", kind, &ino) == 2 &&
        strcmp(kind, "LEASE") == 0)
      inodes.insert(ino);
  }
  return inodes;
}

int openPastLeases(const std::function<int(int waiting)> &open) {
  int fd = open(O_NONBLOCK);
  if (fd >= 0 || errno != EWOULDBLOCK) return fd;
  // The failed attempt has notified the holder and started the timer.
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
  // If the kernel breaks no lease, a blocking open could wait for ever.
  return time > seconds(0) ? open(0) : fd;
}
