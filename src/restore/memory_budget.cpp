#include "restore/memory_budget.h"

#include <fcntl.h>
#include <stdlib.h>

#include <algorithm>
#include <limits>

#include "base/file_io.h"
#include "base/unique_fd.h"
#include "messages/messages.h"
#include "run/trace_log.h"

namespace {

enum BudgetStep : int { kOpenFigures = 2, kReadFigures = 3, kFindTotal = 4 };

constexpr uint64_t kMostKiB = 4194304;
constexpr uint64_t kItemBytes = 24;
constexpr size_t kTextMax = 128;  // bytes to read; the total is the first figure

Result readTotal(const std::string &meminfo, uint64_t *total) {
  const UniqueFd fd(open(meminfo.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return failedErrno(kOpenFigures);
  std::string text;
  if (Result r = readToEnd(fd.get(), &text, kTextMax); !r) return r.at(kReadFigures);
  if (text.empty()) return failedErrno(kReadFigures, EIO);
  const size_t colon = text.find(':');
  const size_t start = colon == std::string::npos ? colon : text.find_first_not_of(" \t", colon + 1);
  if (start == std::string::npos || text[start] < '0' || text[start] > '9') {
    userMessage(Message::kNoTotalMemory);
    return failed(kFindTotal, EINVAL);
  }
  *total = strtoull(text.c_str() + start, nullptr, 10);
  return {};
}

}  // namespace

Result setMaxMemUsage(uint64_t *mem, const std::string &meminfo) {
  uint64_t total = 0;
  if (Result r = readTotal(meminfo, &total); !r) {
    traceLog("setMaxMemUsage: rc %d, code %d, err %d\n", r.rc, r.code, r.err);
    return r;
  }
  // If the product would overflow, the cap applies anyway.
  *mem = std::min(total > UINT64_MAX / 3 ? kMostKiB : total * 3 / 10, kMostKiB);
  return {};
}

uint64_t diffItemLimit(uint64_t mem) {
  const uint64_t most = std::numeric_limits<uint64_t>::max() / 1024;
  return std::min(mem, most) * 1024 / kItemBytes;
}
