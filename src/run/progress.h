// The count of operations written to lists.
#pragma once

#include <cstdint>

extern int64_t opCount;

// Adds one; prints message 509 when `force`, or in the master at every 1000th.
void reportOpCount(bool force);
