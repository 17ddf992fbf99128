// How a routine ended.
#pragma once

#include <cerrno>

// The result of every routine that can fail. A failing routine names its step by a number of its own,
// which appears in its line of the trace log; docs/formats.md has the tables. Where a routine passes on
// the failure of another one, `at` puts its own step in the place of the other's.
struct [[nodiscard]] Result {
  int rc = 0;    // 0: done; else -1, an errno or an exit status, as trace lines show it
  int code = 0;  // the step that failed
  int err = 0;   // errno of the cause; 0 where only an exit status is known

  // True when the routine is done.
  explicit operator bool() const { return rc == 0; }
  Result at(int step) const { return {rc, rc == 0 ? 0 : step, err}; }
  // What a process or an outer routine reports for the failure: never 0 for one.
  int reason() const { return rc == 0 ? 0 : err != 0 ? err : rc; }
};

// A failure with rc -1. Without `err`, errno is the cause; one that the failing call left at 0 becomes
// EIO.
inline Result failed(int code, int err = errno) {
  return {-1, code, err != 0 ? err : EIO};
}

// A failure whose rc is the errno itself.
inline Result failedErrno(int code, int err = errno) {
  return {err != 0 ? err : EIO, code, err != 0 ? err : EIO};
}

// For routines without steps of their own: done where `err` is 0, else a failure whose rc is the errno.
inline Result errnoResult(int err) {
  return {err, 0, err};
}

// The result of a system call or library call that returns 0, or -1 and errno.
inline Result called(int returned) {
  return returned == 0 ? Result{} : failedErrno(0);
}
