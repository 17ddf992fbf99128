#include "run/limits.h"

#include <signal.h>
#include <sys/resource.h>

#include <cstdint>

#include "messages/messages.h"

namespace {

// The walks take half of this for 2,048 nested directories, the most that a path can name.
constexpr rlim_t kLeastStack = 4 << 20;  // bytes
constexpr int64_t kKiB = 1024;

}  // namespace

bool prepareLimits() {
  signal(SIGXFSZ, SIG_IGN);
  rlimit stack;
  if (getrlimit(RLIMIT_STACK, &stack) != 0 || stack.rlim_cur >= kLeastStack) return true;
  rlimit wanted = stack;
  wanted.rlim_cur = kLeastStack;
  if (stack.rlim_max >= kLeastStack && setrlimit(RLIMIT_STACK, &wanted) == 0) return true;
  userMessage(Message::kSmallStack, static_cast<int64_t>(stack.rlim_max) / kKiB,
              static_cast<int64_t>(kLeastStack) / kKiB);
  return false;
}
