// The budget of workers that a run shares with all runs nested in it.
//
// A worker can start the engine again and wait for it. If each engine counted only its own workers, the
// load would multiply. If all engines shared a plain counter, workers that wait for nested runs could
// use it up, and no run would make progress. Therefore:
//
// - The outermost engine creates the area, an anonymous memory file that holds the number of slots.
//   Every worker runs on a slot: the engine that starts it locks byte <slot> of the file.
// - A worker finds KT_WORKER_SLOT=<engine pid>:<descriptor>:<slot>:<depth> in its environment. An
//   engine that it starts opens the area through /proc/<engine pid>/fd/<descriptor>, and so becomes
//   a lock owner of its own.
// - A worker that waits for a nested run does no work itself, so its slot is lent to that run. The
//   nested engine locks the byte for (slot, depth) and runs one worker there, one level deeper.
//   Further workers need slots of their own. Several nested runs of one worker take turns on the
//   lent slot. So every engine makes progress whatever the others hold, and there is no deadlock.
// - The locks belong to the open file of the engine and end with it, however the engine ends. The
//   slot of a killed worker is free once its engine has reaped it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"
#include "base/unique_fd.h"

inline constexpr const char *kWorkerSlotVariable = "KT_WORKER_SLOT";
inline constexpr const char *kMaxWorkersVariable = "KT_MAX_WORKERS";

// Returns the number of workers that suits a machine with `cpus` processors. `waits`: the workers
// mostly wait for the servers of a clustered file system, so that more of them are faster.
size_t defaultMaxWorkers(size_t cpus, bool waits);

class WorkerSlots {
 public:
  struct Slot {
    size_t index = 0;
    size_t depth = 0;  // number of runs in which it is nested
  };

  // Joins the area of the engine whose worker started this process, or creates one with KT_MAX_WORKERS
  // slots (1 to 4096; default: defaultMaxWorkers of `waits`), but `most` at most. rc of a failure is
  // the errno; *problem explains it.
  Result open(bool waits, std::string *problem, size_t most = SIZE_MAX);

  // Returns true if a worker of another engine started this process.
  static bool isNested();

  // Takes a free slot, preferably the lent one. Returns false if there is none now. No event tells when
  // another engine returns a slot, so try again after a short time.
  bool tryAcquire(Slot *slot);
  void release(Slot slot);

  // Returns the value of KT_WORKER_SLOT for the worker on `slot`.
  std::string environment(Slot slot) const;

  // Returns true if there is a slot that this engine does not hold, so that another engine may return
  // one.
  bool othersHoldSlots() const;

  size_t budget() const { return held_.size(); }
  // Returns a process descriptor of the engine in which this run is nested; -1 for the outermost.
  int outerEngine() const { return outer_.get(); }

 private:
  Result create(bool waits, std::string *problem, size_t most);
  Result join(const char *value, std::string *problem);
  bool lock(size_t index, size_t stripe, bool take);

  UniqueFd area_;
  UniqueFd outer_;
  std::vector<bool> held_;  // slots of this engine, because a lock does not exclude its own owner
  bool nested_ = false;
  bool lent_in_use_ = false;
  Slot lent_;
};
