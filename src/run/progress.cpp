#include "run/progress.h"

#include "cfgmgr/messages.h"
#include "run/settings.h"
#include "run/trace_log.h"

int64_t opCount = 0;

void reportOpCount(bool force) {
  ++opCount;
  if (force || (settings.phase == kPhaseMaster && opCount % 1000 == 0))
    userMessage(Message::kOperationsAdded, formatTimeStamp(), opCount);
}
