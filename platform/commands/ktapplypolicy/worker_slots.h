// The budget of workers that a run and all runs nested in it share.
//
// A worker may start the engine again and wait for it. Were each engine to count for itself, the load
// would multiply; were they to share one plain counter, workers that wait for their nested runs could
// use it up and nobody would get on. So:
//
// - The outermost engine makes the area: a memory file without a name that says how many slots there
//   are. A worker runs on a slot; the engine that starts it holds a lock on byte <slot> of the file.
// - A worker finds in its environment KT_WORKER_SLOT=<engine pid>:<descriptor>:<slot>:<depth>. An
//   engine started by it opens the area through /proc/<engine pid>/fd/<descriptor>, under a lock
//   owner of its own.
// - The slot of a worker that waits for a nested run does no work: it is lent to that run. The nested
//   engine locks the byte that stands for (slot, depth) and runs one worker there, one level deeper.
//   Further workers need slots of their own. If a worker starts several nested runs at once they take
//   turns on the lent slot. So every engine gets on whatever the others hold: no deadlock.
// - Locks belong to the engine's open file and vanish with it, however it ends. A killed worker's
//   slot comes back when its engine has reaped it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "btrfs/unique_fd.h"

namespace kest {

inline constexpr const char *kWorkerSlotVariable = "KT_WORKER_SLOT";
inline constexpr const char *kMaxWorkersVariable = "KT_MAX_WORKERS";

// Workers that a machine with `cpus` processors carries.
size_t defaultMaxWorkers(size_t cpus);

class WorkerSlots {
 public:
  struct Slot {
    size_t index = 0;
    size_t depth = 0;  // how many runs it is nested in
  };

  // Joins the area of the engine whose worker started this process, or makes one with KT_MAX_WORKERS
  // slots (1 to 4096; without it defaultMaxWorkers). False: *problem.
  bool open(std::string *problem);

  // Takes a free slot, the lent one first. False when there is none at the moment: slots that other
  // engines give back are not announced, so try again shortly.
  bool tryAcquire(Slot *slot);
  void release(Slot slot);

  // Value of KT_WORKER_SLOT for the worker that runs on `slot`.
  std::string environment(Slot slot) const;

  // True when a slot that this engine does not hold exists: another engine can give it back.
  bool othersHoldSlots() const;

  size_t budget() const { return held_.size(); }
  // Process descriptor of the engine that this run is nested in; -1 for the outermost.
  int outerEngine() const { return outer_.get(); }

 private:
  bool create(std::string *problem);
  bool join(const char *value, std::string *problem);
  bool lock(size_t index, size_t stripe, bool take);

  UniqueFd area_;
  UniqueFd outer_;
  std::vector<bool> held_;  // by this engine; a lock does not exclude its own owner
  bool nested_ = false;
  bool lent_in_use_ = false;
  Slot lent_;
};

}  // namespace kest
