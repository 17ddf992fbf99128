// Clearing immutable and append-only flags that stand in the way of a step.
#pragma once

#include <functional>
#include <string>

// Clears the flags of the object at `path` and of its ancestors below the fileset root, nearest first. A
// first path that is missing or a symbolic link is skipped. Every ancestor whose flag was cleared and that
// the snapshot holds is listed in dir.new, whose phase sets it again. 0, or non-zero after a trace line.
int clearImuAndApdFlags(const std::string &path);

// Clears the flags of the object alone. 1: there were some, 0: there were none, -1 and errno.
int clearObjectFlags(const std::string &path);

// Runs `step` (0 or -1 and errno), and again, a bounded number of times, while it fails on a flag:
// EROFS clears along `path` and, if not empty, along `other`; EPERM clears the flags of the object alone,
// and along the path only where it carried none. Another worker may set a flag while this one works on the
// same object, hence more than one retry.
// 0, or the errno of the step's last failure; *clearing_failed (may be null) tells that the flags could not
// be cleared.
int retryClearing(const std::string &path, const std::string &other, const std::function<int()> &step,
                  bool *clearing_failed = nullptr);
