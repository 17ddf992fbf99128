// The line from an engine to its part on a node: the standard input of the part, by ssh. It does not
// depend on the file system, which can block for a minute when a node is lost.
//
// A letter comes several times a second. If the line ends, or none comes for kLease, the part has lost
// the engine: it kills its workers and ends. So once a node has been out of reach for longer than
// kLease, nothing on it works for the run any more, and another node may do its records again.
#pragma once

#include <atomic>
#include <chrono>

#include "base/unique_fd.h"

inline constexpr std::chrono::seconds kLease(10);
inline constexpr std::chrono::milliseconds kBeat(200);  // between two letters

enum class RunState : char {
  kRun = 'r',
  kStartNothing = 's',  // a worker has failed: running workers may end
  kEndNow = 't',        // a signal
};

// Reads the line on the node of a part. One object per process, for its whole life.
class RunLine {
 public:
  RunLine();
  RunLine(const RunLine &) = delete;
  RunLine &operator=(const RunLine &) = delete;

  // Becomes readable when state() has changed.
  int fd() const { return event_.get(); }
  // Also makes fd() unreadable until the next change.
  RunState state();

 private:
  void read();
  void set(RunState state);

  UniqueFd event_;
  std::atomic<RunState> state_{RunState::kRun};
};
