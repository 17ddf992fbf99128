// How routines report success and failure.
#pragma once

#include <cerrno>

// Returns true for the errno of a full file system or an exhausted quota.
inline bool isFull(int err) {
  return err == ENOSPC || err == EDQUOT;
}

// The result of every routine that can fail. A failing routine names its step by a number of its own,
// which appears in its line of the trace log; docs/formats.md lists the numbers. A routine that passes
// on a failure replaces the step by its own with `at`. rc is what trace lines show and workers end
// with. It can be -1, an errno or an exit status, so code that judges a failure looks at err and
// status.
struct [[nodiscard]] Result {
  int rc = 0;      // 0: success
  int code = 0;    // the step that failed
  int err = 0;     // errno of the cause; 0 if a command failed, of which only `status` is known
  int status = 0;  // exit status of the command that failed; 0 if no command did

  // Returns true for success.
  explicit operator bool() const { return rc == 0; }
  Result at(int step) const { return {rc, rc == 0 ? 0 : step, err, status}; }
  // Returns true if the cause is a full file system or an exhausted quota. The engine reports both by
  // ENOSPC as its exit status.
  bool full() const { return isFull(err) || status == ENOSPC; }
};

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

// Returns the failure of a command that ended with `status`, which is not 0 and becomes rc.
inline Result commandFailed(int code, int status) {
  return {status, code, 0, status};
}

// Converts the return value of a call that returns 0, or -1 and errno.
inline Result called(int returned) {
  return returned == 0 ? Result{} : failedErrno(0);
}
