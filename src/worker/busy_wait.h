// How long a worker waits for a file on which another process works (EBUSY).
#pragma once

#include <unistd.h>

constexpr int kMostWaits = 20000;  // one second in all, and the time of the calls
constexpr useconds_t kWaitMicroseconds = 50;
