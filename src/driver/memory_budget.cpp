#include "driver/memory_budget.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "cfgmgr/messages.h"
#include "run/trace_log.h"

namespace {

constexpr uint64_t kMostKiB = 4194304;

int failBudget(int rc, int code, int error) {
  if (error != 0) traceLog("setMaxMemUsage: rc %d, code %d, err %d\n", rc, code, error);
  return rc;
}

}  // namespace

int setMaxMemUsage(uint64_t *mem, const std::string &meminfo) {
  const int fd = open(meminfo.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return failBudget(errno, 2, errno);
  char text[129];
  ssize_t got;
  do {
    got = read(fd, text, sizeof text - 1);
  } while (got < 0 && errno == EINTR);
  const int error = got < 0 ? errno : EIO;
  close(fd);
  if (got <= 0) return failBudget(error, 3, error);
  text[got] = '\0';
  const char *colon = strchr(text, ':');
  const char *start = colon ? colon + 1 : text;
  start += strspn(start, " \t");
  if (!colon || *start < '0' || *start > '9') {
    userMessage(Message::kNoTotalMemory);
    return failBudget(-1, 4, EINVAL);
  }
  // Where the product would not fit, the cap holds anyway.
  const uint64_t total = strtoull(start, nullptr, 10);
  *mem = std::min(total > UINT64_MAX / 3 ? kMostKiB : total * 3 / 10, kMostKiB);
  return 0;
}
