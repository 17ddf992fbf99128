#include "run/node.h"

#include <unistd.h>

#include <cstdlib>

#include "formats/work_names.h"

namespace {

// Linux has process IDs below 2^22. That leaves 511 nodes.
constexpr int kProcessBits = 22, kMostNodes = 511;

}  // namespace

int nodeNumber() {
  static const int number = [] {
    const char *text = getenv(kNodeVariable);
    const long value = text != nullptr ? strtol(text, nullptr, 10) : 0;
    return value > 0 && value <= kMostNodes ? static_cast<int>(value) : 0;
  }();
  return number;
}

int32_t callerNumber() {
  return static_cast<int32_t>(getpid() | nodeNumber() << kProcessBits);
}
