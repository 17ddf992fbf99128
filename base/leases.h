// Opens regular files on which another process, for example a file server, holds a lease.
#pragma once

#include <cstdint>
#include <functional>
#include <unordered_set>

// Calls `open`(O_NONBLOCK), an open(2) with this flag added, and repeats it while a lease on the file
// forbids it: until the holder gives it up, or shortly before the kernel breaks it
// (/proc/sys/fs/lease-break-time). Then calls `open`(0), which waits in the kernel, so that the holder
// cannot take a new lease in between. Returns a descriptor, or -1 and errno; EINTR: a signal handler
// ran meanwhile.
int openPastLeases(const std::function<int(int waiting)> &open);

// Returns the inode numbers of files on any file system that have a lease, as far as /proc shows it.
std::unordered_set<uint64_t> leasedInodes();
