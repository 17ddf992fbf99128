// How far a running restore has come, read from its work directory. Nothing is locked or changed there.
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
  std::string work_directory;  // its name in the root of the fileset
  pid_t pid = 0;               // of the restore
  int phase = 0;               // docs/formats.md; 0: it reads the trees and writes lists
  int pass = 0;
  uint64_t done = 0, total = 0;  // records; the total grows while phase is 0
  double per_second = 0;         // over the last seconds; 0 at first
  std::optional<int64_t> seconds_left;
};

class RunWatch {
 public:
  // `root`: the root directory of the fileset, which must stay open. `pid` 0: the restore that runs,
  // else this one.
  explicit RunWatch(int root, pid_t pid = 0) : root_(root), pid_(pid) {}

  // Looks; nothing where no restore runs that has a work directory. What was done never counts back.
  std::optional<Progress> look();

 private:
  struct List {
    int rank = 0;  // in the order in which lists are worked off
    bool nested = false;
    ino_t inode = 0;
    uint64_t position = 0;  // bytes that were counted
    uint64_t records = 0;   // in them
    bool seen = false;      // in this look
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
  pid_t number_ = 0;  // in its name
  std::map<std::string, List> lists_;
  uint64_t finished_ = 0;  // records of lists that are gone
  struct Checkpoint {
    uint64_t position = 0, lines = 0;
    bool own = false;  // of the master's list, not of a nested one
    bool seen = false;
  };
  std::map<std::string, Checkpoint> checkpoints_;
  int rank_ = -1;
  uint64_t gone_lines_ = 0;  // of checkpoints of this rank that were removed
  uint64_t most_done_ = 0;
  std::deque<std::pair<Clock::time_point, uint64_t>> samples_;
};

// "making deleted files  1234 of 5678 (21 %)  820/s  5 s left"
std::string progressText(const Progress &progress);
// The name of a phase, for people.
std::string phaseText(int phase);

}  // namespace front
