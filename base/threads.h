// Divides work that needs no order among threads.
#pragma once

#include <cstddef>
#include <functional>

// Returns the number of processors that this process may use, at least 1 and at most kMostThreads.
size_t usefulThreads();

// Calls work(0) to work(count - 1), the first in the caller's thread and each other one in a new
// thread, or in the caller's if the system grants no more. Returns when all have ended: 0, or the
// negative errno of the first index that failed. The new threads receive no signals. An exception in
// `work` becomes -ENOMEM.
int inThreads(size_t count, const std::function<int(size_t)> &work);
