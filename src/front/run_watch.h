// Reads the progress of a running restore from its work directory, without locking or changing anything
// there.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "base/unique_fd.h"

namespace front {

struct Progress {
  std::string work_directory;  // its name in the fileset's root
  pid_t pid = 0;               // process ID of the restore
  int phase = 0;               // see ARCHITECTURE.md; 0: it reads the trees and writes lists
  int pass = 0;
  uint64_t done = 0, total = 0;  // records; `total` grows in phase 0
  double per_second = 0;         // over the last seconds; 0 at first
  std::optional<int64_t> seconds_left;
};

class RunWatch {
 public:
  // `root` is the root directory of the fileset and must stay open. `pid` names the restore to watch; 0
  // means whichever restore is running.
  explicit RunWatch(int root, pid_t pid = 0) : root_(root), pid_(pid) {}

  // Returns the present state, or nothing if no restore with a work directory is running. `done` never
  // decreases.
  std::optional<Progress> look();

 private:
  struct List {
    int rank = 0;  // position in the order of the lists
    bool nested = false;
    ino_t inode = 0;
    uint64_t position = 0;  // bytes counted so far
    uint64_t records = 0;   // records in those bytes
    bool seen = false;      // found in the present look
  };
  using Clock = std::chrono::steady_clock;

  bool findDirectory();
  void readPolicy(Progress *progress);
  void countLists(int dir, const std::string &folder, int rank);
  void countList(int dir, const std::string &name, const std::string &key, int rank, bool nested);
  void countCheckpoints(pid_t caller, int rank);
  void measureRate(Progress *progress);

  const int root_;
  const pid_t pid_;
  UniqueFd dir_;
  std::string name_;
  pid_t number_ = 0;  // the number in that name
  std::map<std::string, List> lists_;
  uint64_t finished_ = 0;  // records of lists that were removed
  struct Checkpoint {
    uint64_t position = 0, lines = 0;
    bool own = false;  // belongs to the master's list, not to a nested run
    bool seen = false;
  };
  std::map<std::string, Checkpoint> checkpoints_;
  int rank_ = -1;
  uint64_t gone_lines_ = 0;  // lines of removed checkpoints of this rank
  uint64_t most_done_ = 0;
  std::deque<std::pair<Clock::time_point, uint64_t>> samples_;
};

// Returns a line such as "making deleted files  1234 of 5678 (21 %)  820/s  5 s left".
std::string progressText(const Progress &progress);
// Returns the name of a phase for the user.
std::string phaseText(int phase);

}  // namespace front
