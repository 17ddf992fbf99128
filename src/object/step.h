// How a step of an operation ended: what the operation returns, traces and leaves in errno.
#pragma once

struct Step {
  int rc = 0;    // 0: done
  int code = 0;  // names the step in the operation's trace line
  int err = 0;   // errno of the cause

  explicit operator bool() const { return rc == 0; }
};

// `rc` is the result of the call that failed, which can be an errno; never 0 afterwards.
inline Step failedStep(int code, int err, int rc = -1) {
  return {rc != 0 ? rc : -1, code, err};
}
