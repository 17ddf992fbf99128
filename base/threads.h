// Work that does not depend on order, divided among threads.
#pragma once

#include <cstddef>
#include <functional>

// As many as processors that this process may use, at least 1, and no more than are of use here.
size_t usefulThreads();

// Calls work(0) to work(count - 1), each in a thread of its own but the first, which is the caller's;
// also one after the other where the system grants no more threads. Returns when all are done: 0, or
// the negative errno of the first one that failed. The threads take no signals. What `work` throws
// becomes -ENOMEM.
int inThreads(size_t count, const std::function<int(size_t)> &work);
