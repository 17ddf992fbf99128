// How routines report success and failure.
#pragma once

#include <cerrno>

// The result of every routine that can fail. A failing routine names its step by a number of its own,
// which appears in its line of the trace log; docs/formats.md lists the numbers. A routine that passes
// on a failure replaces the step by its own with `at`.
struct [[nodiscard]] Result {
  int rc = 0;    // 0: success; else -1, an errno or an exit status, as in trace lines
  int code = 0;  // the step that failed
  int err = 0;   // errno of the cause; 0 if only an exit status is known

  // Returns true for success.
  explicit operator bool() const { return rc == 0; }
  Result at(int step) const { return {rc, rc == 0 ? 0 : step, err}; }
  // Returns what a process or an outer routine reports: the errno if there is one, else rc. Never 0 for
  // a failure.
  int reason() const { return rc == 0 ? 0 : err != 0 ? err : rc; }
};

// Returns true for the errno of a full file system or an exhausted quota.
inline bool isFull(int err) {
  return err == ENOSPC || err == EDQUOT;
}

// Returns a failure with rc -1. The cause is `err` or errno; a cause of 0 becomes EIO.
inline Result failed(int code, int err = errno) {
  return {-1, code, err != 0 ? err : EIO};
}

// Returns a failure whose rc is the errno.
inline Result failedErrno(int code, int err = errno) {
  return {err != 0 ? err : EIO, code, err != 0 ? err : EIO};
}

// For routines without steps: success if `err` is 0, else a failure whose rc is the errno.
inline Result errnoResult(int err) {
  return {err, 0, err};
}

// Converts the return value of a call that returns 0, or -1 and errno.
inline Result called(int returned) {
  return returned == 0 ? Result{} : failedErrno(0);
}
