#include "engine/batch_run.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "engine/batch_file.h"

namespace {

// Interval between attempts to get slots that other engines hold: long compared to an attempt, short
// compared to the run time of a worker.
constexpr int kSlotPollMs = 1;
// Signals within this time after the first one belong to the same request to end.
constexpr std::chrono::seconds kPatience(2);

void complain(const char *format, ...) __attribute__((format(printf, 1, 2)));
void complain(const char *format, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  fprintf(stderr, "ktapplypolicy: %s\n", text);
}

bool contains(const std::vector<pid_t> &pids, pid_t pid) {
  return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

}  // namespace

// A worker process. Number 0 is the probe.
struct BatchRun::Worker {
  pid_t pid = 0;
  WorkerSlots::Slot slot;
  uint64_t number = 0;
  BatchFile file;
};

// Reads the batches of a list.
class BatchRun::Batches {
 public:
  Batches(ListReader *list, uint64_t end, size_t size) : list_(list), end_(end), batcher_(size) {}

  // *batch is empty at the end of the list. A failure is that of the list.
  Result next(Batch *batch) {
    while (!batcher_.take(batch) && !at_end_) {
      ListedRecord record;
      if (list_->position() >= end_)
        at_end_ = true;
      else if (Result r = list_->next(&record, &at_end_); !r)
        return r;
      if (at_end_)
        batcher_.finish();
      else
        batcher_.add(BatchRecord(record));
    }
    return {};
  }

 private:
  ListReader *list_;
  uint64_t end_;
  Batcher batcher_;
  bool at_end_ = false;
};

BatchRun::BatchRun(Settings settings, WorkerSlots *slots, const RunSignals *signals)
    : settings_(std::move(settings)),
      slots_(slots),
      signals_(signals),
      starter_(signals->workerMask()),
      // A shell that became this program by exec can have left children, for which the engine must not
      // wait.
      earlier_children_(childProcesses()) {
  // Adopts processes that a dead worker leaves, so that the run can wait for them.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
}

BatchRun::~BatchRun() = default;

bool BatchRun::probe() {
  WorkerSlots::Slot slot;
  while (!slots_->tryAcquire(&slot)) {
    wait(true);
    if (!mayStart()) return false;
  }
  start({settings_.script.exec, "TEST", settings_.directory->path()}, slot, std::make_unique<Worker>());
  while (!allGone()) wait(false);
  return outcome_.good();
}

RunOutcome BatchRun::run(ListReader *list, uint64_t end) {
  Batches batches(list, end, settings_.batch_size);
  Batch batch;
  while (mayStart()) {
    if (batch.empty()) {
      if (const Result r = batches.next(&batch); !r) {
        complain("the list changed: %s", list->problem().c_str());
        outcome_.own_error = EINVAL;
        break;
      }
      if (batch.empty()) break;
    }
    WorkerSlots::Slot slot;
    const bool room = workers_.size() < settings_.max_workers;
    if (room && slots_->tryAcquire(&slot)) {
      if (!startBatch(batch, slot)) break;
      batch.clear();
      reap();
    } else {
      wait(room);
    }
  }
  while (!allGone()) wait(false);
  return outcome_;
}

// Returns false if the batch file could not be written.
bool BatchRun::startBatch(const Batch &batch, WorkerSlots::Slot slot) {
  auto worker = std::make_unique<Worker>();
  worker->number = outcome_.batches + 1;
  if (const Result r = worker->file.create(*settings_.directory, worker->number, batch); !r) {
    complain("cannot write a batch file in %s: %s", settings_.directory->path().c_str(),
             strerror(r.err));
    outcome_.own_error = r.err;
    slots_->release(slot);
    return false;
  }
  std::vector<std::string> argv = {settings_.script.exec, "LIST", worker->file.path()};
  argv.insert(argv.end(), settings_.script.options.begin(), settings_.script.options.end());
  ++outcome_.batches;
  outcome_.records += batch.size();
  start(argv, slot, std::move(worker));
  return true;
}

void BatchRun::start(const std::vector<std::string> &argv, WorkerSlots::Slot slot,
                     std::unique_ptr<Worker> worker) {
  worker->slot = slot;
  if (const Result r = starter_.start(argv, slots_->environment(slot), &worker->pid); !r) {
    complain("cannot start %s: %s", settings_.script.exec.c_str(), strerror(r.err));
    ++outcome_.failed;
    slots_->release(slot);
    return;
  }
  workers_.push_back(std::move(worker));
}

// Waits for an event; with `for_slot`, at most until the next attempt to get a slot.
void BatchRun::wait(bool for_slot) {
  struct pollfd polled[3] = {{signals_->fd(), POLLIN, 0},
                             {outer_gone_ ? -1 : slots_->outerEngine(), POLLIN, 0},
                             {settings_.line != nullptr ? settings_.line->fd() : -1, POLLIN, 0}};
  int timeout = for_slot && slots_->othersHoldSlots() ? kSlotPollMs : -1;
  if (poll(polled, 3, timeout) < 0 && errno != EINTR) {
    outcome_.own_error = errno;
    complain("poll: %s", strerror(outcome_.own_error));
  }
  if (polled[1].revents) {
    complain("the run that this one is nested in was killed");
    outer_gone_ = true;
    outcome_.stopped = true;
    signalAll(SIGKILL);
  }
  if (settings_.line != nullptr && polled[2].revents) followRun(settings_.line->state());
  handleSignals();
  reap();
}

// Follows the order that has come over the line from the engine whose part this run is.
void BatchRun::followRun(RunState state) {
  if (state == RunState::kRun) return;
  if (state == RunState::kEndNow) endWorkers();
  outcome_.stopped = true;
}

void BatchRun::handleSignals() {
  struct signalfd_siginfo info;
  while (read(signals_->fd(), &info, sizeof(info)) == sizeof(info)) {
    if (info.ssi_signo == SIGCHLD) continue;
    complain("%s", strsignal(static_cast<int>(info.ssi_signo)));
    endWorkers();
    outcome_.stopped = true;
  }
}

void BatchRun::endWorkers() {
  const auto now = std::chrono::steady_clock::now();
  if (stopped_at_ == std::chrono::steady_clock::time_point()) stopped_at_ = now;
  // A request to end often arrives as several signals, so only a later one kills the workers.
  signalAll(now - stopped_at_ >= kPatience ? SIGKILL : SIGTERM);
}

void BatchRun::signalAll(int signal) {
  // A negative number addresses the process group, which includes the children of the worker.
  for (const auto &worker : workers_) kill(-worker->pid, signal);
  for (pid_t pid : strangers()) kill(pid, signal);
}

void BatchRun::reap() {
  int status;
  pid_t pid;
  while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
    auto found = std::find_if(workers_.begin(), workers_.end(),
                              [pid](const auto &worker) { return worker->pid == pid; });
    if (found == workers_.end()) continue;
    std::unique_ptr<Worker> worker = std::move(*found);
    workers_.erase(found);
    ended(*worker, status);
  }
  releaseOrphanSlots();
}

void BatchRun::ended(Worker &worker, int status) {
  // Processes that the worker left behind may still be working, so its slot is not free yet.
  orphan_slots_.push_back(worker.slot);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
  ++outcome_.failed;
  std::string what = worker.number ? "worker of batch " + std::to_string(worker.number) : "probe";
  if (WIFSIGNALED(status)) {
    complain("%s (process %d) was killed by signal %d", what.c_str(), worker.pid, WTERMSIG(status));
  } else {
    complain("%s (process %d) ended with status %d", what.c_str(), worker.pid, WEXITSTATUS(status));
    outcome_.full = outcome_.full || isFull(WEXITSTATUS(status));
  }
}

void BatchRun::releaseOrphanSlots() {
  if (orphan_slots_.empty() || !strangers().empty()) return;
  for (WorkerSlots::Slot slot : orphan_slots_) slots_->release(slot);
  orphan_slots_.clear();
}

// Returns children that are no workers: processes that a worker left behind.
std::vector<pid_t> BatchRun::strangers() const {
  std::vector<pid_t> found = childProcesses();
  std::erase_if(found, [this](pid_t pid) {
    return contains(earlier_children_, pid) ||
           std::any_of(workers_.begin(), workers_.end(),
                       [pid](const auto &worker) { return worker->pid == pid; });
  });
  return found;
}

bool BatchRun::allGone() {
  reap();
  return workers_.empty() && orphan_slots_.empty();
}
