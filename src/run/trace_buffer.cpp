#include "run/trace_buffer.h"

#include <cerrno>
#include <ctime>
#include <string>

#include "run/work_file.h"

namespace {

constexpr size_t kMostWaiting = 16 * 1024;  // bytes
constexpr int64_t kPause = 1000000;         // nanoseconds

int waiting_fd = -1;
std::string waiting;
int64_t last_write = 0;

int64_t nanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
}

}  // namespace

void flushTraceLines() {
  if (waiting.empty()) return;
  const int saved = errno;
  (void)writeAll(waiting_fd, waiting);
  waiting.clear();
  last_write = nanoseconds();
  errno = saved;
}

void putTraceLine(int fd, std::string_view line) {
  if (fd != waiting_fd || waiting.size() + line.size() > kMostWaiting) flushTraceLines();
  waiting_fd = fd;
  waiting.append(line);
  if (nanoseconds() - last_write >= kPause) flushTraceLines();
}
