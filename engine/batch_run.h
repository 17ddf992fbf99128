// One run of the engine: starts workers for batches and waits for their end.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/result.h"
#include "engine/batcher.h"
#include "engine/run_directory.h"
#include "engine/run_line.h"
#include "engine/worker_process.h"
#include "engine/worker_slots.h"
#include "formats/list_record.h"
#include "formats/policy_text.h"

struct RunOutcome {
  uint64_t records = 0;  // records handed to workers
  uint64_t batches = 0;
  uint64_t failed = 0;  // workers that failed, died or could not be started
  int own_error = 0;    // errno of a failure of the engine's own list or files, or 0
  bool full = false;    // a worker ended with the errno of a full file system or quota
  bool stopped = false;

  bool good() const { return failed == 0 && own_error == 0 && !stopped; }
};

// Hands batch after batch to workers and waits for them.
//
// After the first failure, or a signal, starts nothing more and waits for the running workers. Passes a
// signal on to the workers as SIGTERM, but one that comes two seconds or more after the first as
// SIGKILL. The run ends when all processes that descend from its workers have ended, also those that a
// worker left behind: this process adopts them. If the engine in which this run is nested is killed,
// its workers are killed, too.
class BatchRun {
 public:
  struct Settings {
    ScriptRule script;
    const RunDirectory *directory;  // receives the batch files
    size_t max_workers;             // workers of this run at the same time
    size_t batch_size;
    RunLine *line = nullptr;  // of a part of a run of several nodes
  };

  // `slots` and `signals` must outlive this object.
  BatchRun(Settings settings, WorkerSlots *slots, const RunSignals *signals);
  ~BatchRun();

  // Starts the script as EXEC TEST <directory>, in a worker on a slot, and waits. Returns true if it
  // ended with 0.
  bool probe();
  // Runs the list from its current position to position `end` (bytes).
  RunOutcome run(ListReader *list, uint64_t end = UINT64_MAX);

 private:
  struct Worker;
  class Batches;

  bool startBatch(const Batch &batch, WorkerSlots::Slot slot);
  void start(const std::vector<std::string> &argv, WorkerSlots::Slot slot,
             std::unique_ptr<Worker> worker);
  void wait(bool for_slot);
  void reap();
  void ended(Worker &worker, int status);
  void handleSignals();
  void followRun(RunState state);
  void endWorkers();
  void signalAll(int signal);
  void releaseOrphanSlots();
  std::vector<pid_t> strangers() const;
  bool allGone();
  bool mayStart() const { return outcome_.good(); }

  Settings settings_;
  WorkerSlots *slots_;
  const RunSignals *signals_;
  WorkerStarter starter_;
  std::vector<pid_t> earlier_children_;
  std::vector<std::unique_ptr<Worker>> workers_;
  std::vector<WorkerSlots::Slot> orphan_slots_;  // slots of ended workers that left processes behind
  RunOutcome outcome_;
  std::chrono::steady_clock::time_point stopped_at_;
  bool outer_gone_ = false;
};
