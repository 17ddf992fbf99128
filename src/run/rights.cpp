#include "run/rights.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

#include "base/file_io.h"
#include "base/unique_fd.h"
#include "messages/messages.h"
#include "run/settings.h"

namespace {

// A walk holds every directory on its path open, besides the lists that it writes.
constexpr rlim_t kFewestFiles = 128;
// A path of 4096 bytes has at most 2,048 components, so no walk needs more descriptors.
constexpr rlim_t kMostFiles = 8192;
// The walks take half of this for 2,048 nested directories, the most that a path can name.
constexpr rlim_t kLeastStack = 4 << 20;  // bytes
constexpr int64_t kKiB = 1024;

struct Capability {
  const char *name;
  int number;
  bool to_read;  // a comparison needs it, too
};

constexpr Capability kNeeded[] = {
    {"CAP_SYS_ADMIN", CAP_SYS_ADMIN, true},  // read trees, trusted attributes, read-only subvolumes
    {"CAP_DAC_READ_SEARCH", CAP_DAC_READ_SEARCH, true},  // open inodes by number
    {"CAP_DAC_OVERRIDE", CAP_DAC_OVERRIDE, false},
    {"CAP_FOWNER", CAP_FOWNER, false},  // set modes, times and ACLs of files of others
    {"CAP_CHOWN", CAP_CHOWN, false},
    {"CAP_FSETID", CAP_FSETID, false},  // keep the set-group-ID bit for a foreign group
    {"CAP_MKNOD", CAP_MKNOD, false},
    {"CAP_SETFCAP", CAP_SETFCAP, false},  // set file capabilities
    {"CAP_LINUX_IMMUTABLE", CAP_LINUX_IMMUTABLE, false},
};

// Reads the effective capabilities as a bit set.
Result readCapabilities(uint64_t *bits) {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, data) != 0) return failedErrno(0);
  *bits = data[1].effective;
  *bits = *bits << 32 | data[0].effective;
  return {};
}

// Returns true if a program that this process starts will have the capability, too. For root the
// bounding set decides, for other users the ambient set.
bool isPassedOn(int capability) {
  return geteuid() == 0 ? prctl(PR_CAPBSET_READ, capability) == 1
                        : prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_IS_SET, capability, 0, 0) == 1;
}

// Returns true in a user namespace other than the initial one. There the kernel checks capabilities
// against the namespace of the file system, where this process has none.
bool inUserNamespace() {
  const UniqueFd fd(open("/proc/self/uid_map", O_RDONLY | O_CLOEXEC));
  std::string map;
  if (!fd || !readToEnd(fd.get(), &map)) return false;
  unsigned long long inside = 0, outside = 0, count = 0;
  return sscanf(map.c_str(), "%llu %llu %llu", &inside, &outside, &count) == 3 &&
         (inside != 0 || outside != 0 || count != UINT32_MAX);
}

Result checkCapabilities() {
  const bool reads = settings.role == Role::kComparison;
  uint64_t have = 0;
  if (Result r = readCapabilities(&have); !r) return r;
  std::string missing;
  for (const Capability &one : kNeeded) {
    if (reads && !one.to_read) continue;
    if ((have >> one.number & 1) != 0 && (reads || isPassedOn(one.number))) continue;
    missing += (missing.empty() ? "" : ", ") + std::string(one.name);
  }
  if (missing.empty() && !inUserNamespace()) return {};
  if (missing.empty())
    userMessage(Message::kUserNamespace);
  else
    userMessage(Message::kNoRights, missing);
  return errnoResult(EPERM);
}

Result checkFileLimit() {
  struct rlimit limit;
  if (Result r = called(getrlimit(RLIMIT_NOFILE, &limit)); !r) return r;
  const rlim_t wanted = std::min(limit.rlim_max, kMostFiles);
  if (limit.rlim_cur < wanted) {
    limit.rlim_cur = wanted;
    // If the limit cannot be raised, the present one decides below.
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0 && getrlimit(RLIMIT_NOFILE, &limit) != 0)
      return failedErrno(0);
  }
  if (limit.rlim_cur >= kFewestFiles) return {};
  userMessage(Message::kFewDescriptors, static_cast<int64_t>(limit.rlim_cur),
              static_cast<int64_t>(kFewestFiles));
  return errnoResult(EMFILE);
}

}  // namespace

Result prepareLimits() {
  signal(SIGXFSZ, SIG_IGN);
  rlimit stack;
  if (getrlimit(RLIMIT_STACK, &stack) != 0 || stack.rlim_cur >= kLeastStack) return {};
  rlimit wanted = stack;
  wanted.rlim_cur = kLeastStack;
  const Result raised =
      stack.rlim_max < kLeastStack ? errnoResult(EPERM) : called(setrlimit(RLIMIT_STACK, &wanted));
  if (raised) return {};
  userMessage(Message::kSmallStack, static_cast<int64_t>(stack.rlim_max) / kKiB,
              static_cast<int64_t>(kLeastStack) / kKiB);
  return raised;
}

Result checkRights() {
  if (Result r = checkFileLimit(); !r) return r;
  return checkCapabilities();
}
