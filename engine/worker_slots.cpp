#include "engine/worker_slots.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kMostSlots = 4096;
constexpr const char *kAreaName = "ktapplypolicy-slots";

struct Header {
  char magic[8];
  uint32_t slots;
};
constexpr char kMagic[8] = {'K', 'T', 'S', 'L', 'O', 'T', '0', '1'};

bool maxWorkersFromEnvironment(bool waits, size_t *count, std::string *problem) {
  const char *value = getenv(kMaxWorkersVariable);
  if (!value || !*value) {
    long cpus = sysconf(_SC_NPROCESSORS_ONLN);
    *count = defaultMaxWorkers(static_cast<size_t>(std::max(cpus, 1L)), waits);
    return true;
  }
  const char *end = value + strlen(value);
  auto [stop, error] = std::from_chars(value, end, *count);
  if (error == std::errc() && stop == end && *count >= 1 && *count <= kMostSlots) return true;
  *problem =
      std::string(kMaxWorkersVariable) + " must be a number from 1 to " + std::to_string(kMostSlots);
  return false;
}

}  // namespace

// Measured on one btrfs and two processors: 60,000 changed files took 8.6 s with two workers and 10.2 s
// with four, because the workers only queue for the lock of the tree's root. One worker alone is
// slower.
size_t defaultMaxWorkers(size_t cpus, bool waits) {
  return waits ? std::clamp<size_t>(2 * cpus, 4, kMostSlots) : std::clamp<size_t>(cpus, 2, kMostSlots);
}

namespace {

// Returns what an outer engine says about its slots, or NULL.
const char *outerSlots() {
  const char *value = getenv(kWorkerSlotVariable);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

}  // namespace

bool WorkerSlots::isNested() {
  return outerSlots() != nullptr;
}

Result WorkerSlots::open(bool waits, std::string *problem, size_t most) {
  const char *outer = outerSlots();
  return outer != nullptr ? join(outer, problem) : create(waits, problem, most);
}

Result WorkerSlots::create(bool waits, std::string *problem, size_t most) {
  size_t count = 0;
  if (!maxWorkersFromEnvironment(waits, &count, problem)) return errnoResult(EINVAL);
  count = std::min(count, most);
  Header header{};
  memcpy(header.magic, kMagic, sizeof(kMagic));
  header.slots = static_cast<uint32_t>(count);
  area_.reset(memfd_create(kAreaName, MFD_CLOEXEC));
  if (!area_ || pwrite(area_.get(), &header, sizeof(header), 0) != sizeof(header)) {
    const Result failure = failedErrno(0);
    *problem = std::string("cannot make the worker slots: ") + strerror(failure.err);
    return failure;
  }
  held_.assign(count, false);
  return {};
}

Result WorkerSlots::join(const char *value, std::string *problem) {
  int pid = 0, fd = 0, used = 0;
  size_t index = 0, depth = 0;
  if (sscanf(value, "%d:%d:%zu:%zu%n", &pid, &fd, &index, &depth, &used) != 4 || value[used] != '\0' ||
      pid <= 0 || fd < 0) {
    *problem = std::string(kWorkerSlotVariable) + " is not of this program's making";
    return errnoResult(EINVAL);
  }
  // This order matters. The process descriptor comes first: if the file descriptor then leads to a slot
  // area, the process is still that engine, and its number has not been reused.
  outer_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  std::string path = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
  char target[64];
  ssize_t length = readlink(path.c_str(), target, sizeof(target) - 1);
  std::string expected = std::string("/memfd:") + kAreaName + " (deleted)";
  Header header{};
  if (outer_ && length > 0 && expected == std::string(target, static_cast<size_t>(length))) {
    area_.reset(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  }
  if (!area_ || pread(area_.get(), &header, sizeof(header), 0) != sizeof(header) ||
      memcmp(header.magic, kMagic, sizeof(kMagic)) != 0 || header.slots > kMostSlots ||
      index >= header.slots) {
    *problem = "the run that this one is nested in (process " + std::to_string(pid) + ") has ended";
    return errnoResult(ESRCH);
  }
  held_.assign(header.slots, false);
  nested_ = true;
  lent_ = {index, depth};
  return {};
}

// Byte `index` stands for the slot itself. Byte `index` of stripe `depth` + 1 stands for its loan to a
// run that is nested in the worker on that slot at that depth.
bool WorkerSlots::lock(size_t index, size_t stripe, bool take) {
  struct flock range {};
  range.l_type = take ? F_WRLCK : F_UNLCK;
  range.l_whence = SEEK_SET;
  range.l_start = static_cast<off_t>(stripe * kMostSlots + index);
  range.l_len = 1;
  return fcntl(area_.get(), F_OFD_SETLK, &range) == 0;
}

bool WorkerSlots::tryAcquire(Slot *slot) {
  if (nested_ && !lent_in_use_ && lock(lent_.index, lent_.depth + 1, true)) {
    lent_in_use_ = true;
    *slot = {lent_.index, lent_.depth + 1};
    return true;
  }
  for (size_t index = 0; index < held_.size(); index++) {
    if (!held_[index] && lock(index, 0, true)) {
      held_[index] = true;
      *slot = {index, 0};
      return true;
    }
  }
  return false;
}

void WorkerSlots::release(Slot slot) {
  lock(slot.index, slot.depth, false);
  if (slot.depth > 0) {
    lent_in_use_ = false;
  } else {
    held_[slot.index] = false;
  }
}

bool WorkerSlots::othersHoldSlots() const {
  return (nested_ && !lent_in_use_) || std::find(held_.begin(), held_.end(), false) != held_.end();
}

std::string WorkerSlots::environment(Slot slot) const {
  return std::to_string(getpid()) + ":" + std::to_string(area_.get()) + ":" +
         std::to_string(slot.index) + ":" + std::to_string(slot.depth);
}
