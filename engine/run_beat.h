// How an engine and its parts on other nodes know of each other, whatever happens to the connections.
//
// The engine writes the beat file in the run directory, which all nodes see, several times a second. A
// part reads it as often. If it stays the same for kLease, the part has lost the engine or the file
// system: it kills its workers and ends. So once a node has been out of reach for longer than kLease,
// nothing on it works for the run any more, and another node may do its records again.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <thread>

#include "base/result.h"
#include "base/unique_fd.h"
#include "engine/run_directory.h"

inline constexpr std::chrono::seconds kLease(10);

enum class RunState : char {
  kRun = 'r',
  kStartNothing = 's',  // a worker has failed: running workers may end
  kEndNow = 't',        // a signal, or the end of the run
};

class BeatFile {
 public:
  BeatFile() = default;
  BeatFile(const BeatFile &) = delete;
  BeatFile &operator=(const BeatFile &) = delete;
  ~BeatFile();

  // Creates the file. rc of a failure is the errno.
  Result create(const RunDirectory &directory);
  const std::string &path() const { return path_; }
  // Writes a new beat. `lost`: numbers of the nodes that must not go on. rc of a failure is the errno.
  Result beat(RunState state, const std::set<size_t> &lost);

 private:
  const RunDirectory *directory_ = nullptr;
  std::string path_;
  UniqueFd fd_;
  uint64_t count_ = 0;
};

// Reads the beats on the node of a part. The process ends, after its workers, if they stop.
class BeatWatch {
 public:
  // `directory` must outlive this object.
  BeatWatch(const RunDirectory &directory, std::string path, size_t node);
  ~BeatWatch();
  BeatWatch(const BeatWatch &) = delete;
  BeatWatch &operator=(const BeatWatch &) = delete;

  // Becomes readable when state() has changed.
  int fd() const { return event_.get(); }
  // Also makes fd() unreadable until the next change.
  RunState state();

 private:
  void read();
  void readOnce();
  void guard();
  void set(RunState state);

  const RunDirectory &directory_;
  const std::string path_;
  const size_t node_;
  UniqueFd event_;
  std::atomic<RunState> state_{RunState::kRun};
  std::atomic<int64_t> last_change_;  // nanoseconds of the steady clock
  std::atomic<bool> over_{false};
  std::string last_count_;
  std::thread guard_;
};
