// The budget of workers that a run and all runs nested in it share.
//
// A worker may start the engine again and wait for it. If each engine counted its own workers only, the
// load would multiply. If all engines shared one plain counter, workers that wait for their nested runs
// could use it up, and no run would make progress. So:
//
// - The outermost engine makes the area: a memory file without a name that says how many slots there
//   are. A worker runs on a slot; the engine that starts it holds a lock on byte <slot> of the file.
// - A worker finds in its environment KT_WORKER_SLOT=<engine pid>:<descriptor>:<slot>:<depth>. An
//   engine that it starts opens the area through /proc/<engine pid>/fd/<descriptor>, which gives it a
//   lock owner of its own.
// - The slot of a worker that waits for a nested run does no work: it is lent to that run. The nested
//   engine locks the byte that stands for (slot, depth) and runs one worker there, one level deeper.
//   Further workers need slots of their own. If a worker starts several nested runs at once, they take
//   turns on the lent slot. So every engine makes progress whatever the others hold: no deadlock.
// - Locks belong to the engine's open file and vanish with it, however it ends. A killed worker's
//   slot is free again when its engine has reaped the worker.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "base/result.h"
#include "base/unique_fd.h"

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
  // slots (1 to 4096; without it defaultMaxWorkers). rc of a failure is the errno; *problem explains
  // it.
  Result open(std::string *problem);

  // Takes a free slot, the lent one first. False when there is none at the moment: no event tells when
  // another engine gives one back, so try again shortly.
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
  Result create(std::string *problem);
  Result join(const char *value, std::string *problem);
  bool lock(size_t index, size_t stripe, bool take);

  UniqueFd area_;
  UniqueFd outer_;
  std::vector<bool> held_;  // by this engine; a lock does not exclude its own owner
  bool nested_ = false;
  bool lent_in_use_ = false;
  Slot lent_;
};
