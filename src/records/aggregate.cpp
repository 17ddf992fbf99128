#include "records/aggregate.h"

#include "messages/messages.h"
#include "run/settings.h"
#include "run/trace_log.h"

Aggregates aggregates;

int64_t opCount = 0;

void reportOpCount(bool force) {
  ++opCount;
  if (force || (settings.isMaster() && opCount % 1000 == 0))
    userMessage(Message::kOperationsAdded, formatTimeStamp(), opCount);
}
