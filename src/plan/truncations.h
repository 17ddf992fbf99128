// Truncates files of the fileset in a thread of its own, while the walk goes on. Truncating a file
// takes as long as listing it, and no step of the walk depends on it. Master only.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/result.h"
#include "kest.h"

class Truncations {
 public:
  Truncations() = default;
  ~Truncations();
  Truncations(const Truncations &) = delete;
  Truncations &operator=(const Truncations &) = delete;

  struct Step {
    std::string path;  // in the fileset
    uint64_t ino = 0;
    int64_t size = 0;  // bytes that the file gets
    int err = 0;       // errno of a failed attempt; 0: not tried yet
  };
  // Hands a step to the thread. Returns false if so many wait or have failed that settle() has to be
  // called. Steps that wait when the object ends are not done.
  bool add(Step step);
  // Waits until every step is done. Repeats in this thread those that a flag has forbidden, and clears
  // the flag, and those whose path has changed. Call it before a path of a file can change and at the
  // end of the walk. rc and code of a failure are those of truncateListed.
  Result settle();

 private:
  Result openFileset();
  void work();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Step> waiting_;
  std::vector<Step> failed_;
  bool working_ = false, ending_ = false;
  kest_fssnap_handle_t *fileset_ = nullptr;  // a handle is for one thread
  std::thread thread_;
};

// The truncations of the walk at hand, one object of the process like the settings. The walk over the
// names makes it and ends it; null outside of that walk.
extern std::unique_ptr<Truncations> truncations;

// Truncates a file: later, by the truncations of the walk, or at once outside of the walk. rc of a
// failure is -1.
Result truncateListed(const Truncations::Step &step);

// Calls settle() of the truncations of the walk; does nothing outside of the walk.
Result settleTruncations();
