// Opening regular files on which somebody holds a lease, as file servers do.
#pragma once

#include <cstdint>
#include <functional>
#include <unordered_set>

// Runs `open`(O_NONBLOCK), an open(2) with this flag added, and again while a lease on the file forbids
// it: until its holder has given it up or the kernel breaks it (/proc/sys/fs/lease-break-time). At that
// moment it runs `open`(0), which waits in the kernel, so that the holder cannot take a new lease in
// between. Returns a descriptor, or -1 and errno: EINTR where a signal handler ran meanwhile.
int openPastLeases(const std::function<int(int waiting)> &open);

// Inode numbers of files on which somebody holds a lease, of any file system, as far as /proc shows it.
std::unordered_set<uint64_t> leasedInodes();
