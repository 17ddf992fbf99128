#include "run/node.h"

#include <unistd.h>

#include <cstdlib>

#include "base/local_nodes.h"
#include "formats/work_names.h"
#include "messages/messages.h"
#include "run/stop_signal.h"

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

void awaitDeadNodes() {
  constexpr int kUntilDead = 12;  // seconds; more than kLease of the engine
  userMessage(Message::kAwaitDeadRun, kUntilDead);
  for (int tenths = kUntilDead * 10; tenths > 0 && stopSignal() == 0; --tenths) usleep(100000);
}
