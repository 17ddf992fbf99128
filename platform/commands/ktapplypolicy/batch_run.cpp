#include "commands/ktapplypolicy/batch_run.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace kest {
namespace {

// How often slots that other engines hold are looked at: long against the look, short against a worker.
constexpr int kSlotPollMs = 1;
constexpr std::chrono::seconds kPatience(2);

void complain(const char *format, ...) __attribute__((format(printf, 1, 2)));
void complain(const char *format, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  fprintf(stderr, "ktapplypolicy: %s\n", text);
}

// Direct children of this process, adopted ones included.
std::vector<pid_t> childProcesses() {
  std::vector<pid_t> children;
  std::string path = "/proc/self/task/" + std::to_string(getpid()) + "/children";
  FILE *file = fopen(path.c_str(), "re");
  if (!file) return children;
  int pid;
  while (fscanf(file, "%d", &pid) == 1) children.push_back(pid);
  fclose(file);
  return children;
}

bool contains(const std::vector<pid_t> &pids, pid_t pid) {
  return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

}  // namespace

RunSignals::RunSignals() {
  // An inherited "ignore" would make the kernel reap our children unseen.
  signal(SIGCHLD, SIG_DFL);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGCHLD);
  for (int number : {SIGTERM, SIGINT, SIGHUP}) {
    struct sigaction action;
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
      sigaddset(&set, number);
    }
  }
  sigprocmask(SIG_BLOCK, &set, &before_);
  fd_.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Batch 0 is the probe.
struct BatchRun::Worker {
  pid_t pid = 0;
  WorkerSlots::Slot slot;
  uint64_t number = 0;
  BatchFile file;
};

class BatchRun::Batches {
 public:
  Batches(RecordList *list, size_t size) : list_(list), batcher_(size) {}

  // 1 and a batch, 0 at the end, -1 when the list cannot be read on.
  int next(Batch *batch) {
    while (!batcher_.take(batch)) {
      if (at_end_) return 0;
      ListRecord record;
      int got = list_->next(&record);
      if (got < 0) return -1;
      if (got > 0) {
        batcher_.add(std::move(record));
      } else {
        batcher_.finish();
        at_end_ = true;
      }
    }
    return 1;
  }

 private:
  RecordList *list_;
  Batcher batcher_;
  bool at_end_ = false;
};

BatchRun::BatchRun(Settings settings, WorkerSlots *slots, WorkerStarter *starter,
                   const RunSignals *signals)
    : settings_(std::move(settings)),
      slots_(slots),
      starter_(starter),
      signals_(signals),
      // A shell that became this program by exec may have left us children that are not ours to await.
      earlier_children_(childProcesses()) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
}

BatchRun::~BatchRun() = default;

bool BatchRun::probe() {
  WorkerSlots::Slot slot;
  while (!slots_->tryAcquire(&slot)) {
    wait(true);
    if (!mayStart()) return false;
  }
  WorkerCommand command;
  command.argv = {settings_.script.exec, "TEST", settings_.directory->path()};
  start(std::move(command), slot, std::make_unique<Worker>());
  while (!allGone()) wait(false);
  return outcome_.good();
}

RunOutcome BatchRun::run(RecordList *list) {
  Batches batches(list, settings_.batch_size);
  Batch batch;
  int more = 1;
  while (mayStart()) {
    if (batch.empty()) more = batches.next(&batch);
    if (more < 0) {
      complain("the list changed: %s", list->problem().c_str());
      outcome_.own_error = EINVAL;
    }
    if (more <= 0) break;
    WorkerSlots::Slot slot;
    bool room = workers_.size() < settings_.max_workers;
    if (room && slots_->tryAcquire(&slot)) {
      auto worker = std::make_unique<Worker>();
      worker->number = outcome_.batches + 1;
      int rc = worker->file.create(*settings_.directory, worker->number, batch);
      if (rc < 0) {
        complain("cannot write a batch file in %s: %s", settings_.directory->path().c_str(),
                 strerror(-rc));
        outcome_.own_error = -rc;
        slots_->release(slot);
        break;
      }
      WorkerCommand command;
      command.argv = {settings_.script.exec, "LIST", worker->file.path()};
      const auto &options = settings_.script.options;
      command.argv.insert(command.argv.end(), options.begin(), options.end());
      outcome_.batches++;
      outcome_.records += batch.size();
      start(std::move(command), slot, std::move(worker));
      batch.clear();
      reap();
    } else {
      wait(room);
    }
  }
  while (!allGone()) wait(false);
  return outcome_;
}

bool BatchRun::start(WorkerCommand command, WorkerSlots::Slot slot, std::unique_ptr<Worker> worker) {
  command.environment = {{kWorkerSlotVariable, slots_->environment(slot)}};
  worker->slot = slot;
  int rc = starter_->start(command, &worker->pid);
  if (rc < 0) {
    complain("cannot start %s: %s", settings_.script.exec.c_str(), strerror(-rc));
    outcome_.failed++;
    slots_->release(slot);
    return false;
  }
  workers_.push_back(std::move(worker));
  return true;
}

// Until something happens; with `for_slot` at most for the time after which to look for slots again.
void BatchRun::wait(bool for_slot) {
  struct pollfd polled[2] = {{signals_->fd(), POLLIN, 0},
                             {outer_gone_ ? -1 : slots_->outerEngine(), POLLIN, 0}};
  int timeout = for_slot && slots_->othersHoldSlots() ? kSlotPollMs : -1;
  if (poll(polled, 2, timeout) < 0 && errno != EINTR) {
    complain("poll: %s", strerror(errno));
    outcome_.own_error = errno;
  }
  if (polled[1].revents) {
    complain("the run that this one is nested in was killed");
    outer_gone_ = true;
    outcome_.stopped = true;
    signalAll(SIGKILL);
  }
  handleSignals();
  reap();
}

void BatchRun::handleSignals() {
  struct signalfd_siginfo info;
  while (read(signals_->fd(), &info, sizeof(info)) == sizeof(info)) {
    if (info.ssi_signo == SIGCHLD) continue;
    complain("%s", strsignal(static_cast<int>(info.ssi_signo)));
    auto now = std::chrono::steady_clock::now();
    if (!outcome_.stopped) stopped_at_ = now;
    // One wish to end us often comes as several signals.
    signalAll(now - stopped_at_ >= kPatience ? SIGKILL : SIGTERM);
    outcome_.stopped = true;
  }
}

void BatchRun::signalAll(int signal) {
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
  // What it left behind may still be at work, so its slot is not free yet.
  orphan_slots_.push_back(worker.slot);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
  outcome_.failed++;
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

// Children that are no workers: processes that a worker left behind.
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

}  // namespace kest
