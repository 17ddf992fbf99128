// The immutable and append-only flags, and clearing them where they forbid a step of the restore.
#pragma once

#include <functional>
#include <string>

#include "base/result.h"

struct InodeFlags {
  bool immutable = false;
  bool appendOnly = false;
};

// These four work on an open descriptor, also one opened with O_PATH. rc of a failure is the errno.
Result getInodeFlags(int fd, InodeFlags *flags);
Result clearInodeFlags(int fd);
Result setImmutableFlag(int fd, bool on);
Result setAppendOnlyFlag(int fd, bool on);

// Clears the flags of the object at `path` and of its ancestors up to the fileset's root, nearest
// first. Skips the object itself if it is missing or a symbolic link. Lists every ancestor that it
// cleared and that the snapshot holds in dir.new, whose phase sets the flag again. Failures are traced;
// rc is -1.
Result clearImuAndApdFlags(const std::string &path);

// Runs `step`, and repeats it a bounded number of times while a flag makes it fail. On EROFS, clears
// the flags along `path` and, unless empty, along `other`. On EPERM, clears those of the object, and
// along the path only if the object had none. One repetition is not enough: another worker can set a
// flag on the same object meanwhile. Returns the failure of the last run of `step`, with the errno as
// rc; *clearing_failed (may be null) tells that the flags could not be cleared.
Result retryClearing(const std::string &path, const std::string &other,
                     const std::function<Result()> &step, bool *clearing_failed = nullptr);
