// The immutable and append-only flags, and clearing them where they forbid a step.
#pragma once

#include <functional>
#include <string>

#include "base/result.h"

struct InodeFlags {
  bool immutable = false;
  bool appendOnly = false;
};

// Of an open descriptor, O_PATH included. rc of a failure is the errno.
Result getInodeFlags(int fd, InodeFlags *flags);
Result clearInodeFlags(int fd);
Result setImmutableFlag(int fd, bool on);
Result setAppendOnlyFlag(int fd, bool on);

// Clears the flags of the object at `path` and of its ancestors below the fileset root, nearest first.
// A first path that is missing or a symbolic link is skipped. Every ancestor whose flag was cleared and
// that the snapshot holds is listed in dir.new, whose phase sets it again. Failures are traced; their
// rc is -1.
Result clearImuAndApdFlags(const std::string &path);

// Clears the flags of the object alone; *cleared tells whether there were some. As above.
Result clearObjectFlags(const std::string &path, bool *cleared);

// Runs `step`, and again, a bounded number of times, while it fails on a flag: EROFS clears along
// `path` and, if not empty, along `other`; EPERM clears the flags of the object alone, and along the
// path only where it carried none. Another worker may set a flag while this one works on the same
// object, hence more than one repetition. A failure is that of the last run of the step, its rc the
// errno; *clearing_failed (may be null) tells that the flags could not be cleared.
Result retryClearing(const std::string &path, const std::string &other,
                     const std::function<Result()> &step, bool *clearing_failed = nullptr);
