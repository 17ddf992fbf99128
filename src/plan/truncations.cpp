#include "plan/truncations.h"

#include <signal.h>

#include <cerrno>
#include <iterator>
#include <system_error>
#include <utility>

#include "object/name_calls.h"
#include "object/paths.h"
#include "plan/walk_messages.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

// Step codes of listChangedFile.
enum TruncationStep : int {
  kTruncate = 14,
  kClearFlags = 141,  // the flags that forbid the truncation
};

constexpr size_t kMost = 4096;  // steps that wait or have failed

Result truncateNow(const Truncations::Step &step) {
  bool clearing_failed = false;
  const Result r = truncatePath(step.path, step.size, step.ino, &clearing_failed);
  return r ? r : failed(clearing_failed ? kClearFlags : kTruncate, r.err);
}

}  // namespace

std::unique_ptr<Truncations> truncations;

Truncations::~Truncations() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
  if (fileset_ != nullptr) kest_free_fssnaphandle(fileset_);
}

bool Truncations::add(Step step) {
  step.path = resolveOwnLinks(step.path);
  std::unique_lock lock(mutex_);
  if (!thread_.joinable()) {
    failed_.reserve(kMost + 1);  // the thread never allocates
    // Block all signals in the new thread, so that the main thread receives them.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
      thread_ = std::thread([this] { work(); });
    } catch (const std::system_error &) {
      // Without a thread, settle() performs the steps.
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
  const bool idle = waiting_.empty() && !working_;
  (thread_.joinable() ? waiting_.push_back(std::move(step)) : failed_.push_back(std::move(step)));
  const bool room = waiting_.size() + failed_.size() < kMost;
  // A thread that is woken while this one holds the lock would have to wait again.
  lock.unlock();
  if (idle) changed_.notify_all();
  return room;
}

// Opens the fileset once more. rc of a failure is the errno; ESTALE: its name leads to another fileset
// by now.
Result Truncations::openFileset() {
  fileset_ =
      kest_get_fset_snaphandle_by_name(settings.deviceP.c_str(), settings.filesetP.c_str(), nullptr);
  if (fileset_ == nullptr) return failedErrno(0);
  kest_snapid_t here = 0, main = 0;
  if (Result r = called(kest_get_fssnapid_from_fssnaphandle(fileset_, &here)); !r) return r;
  if (Result r = called(kest_get_fssnapid_from_fssnaphandle(handles.activeFsP, &main)); !r) return r;
  if (here != main) return errnoResult(ESTALE);
  return called(kest_anchor(fileset_, settings.shareDir.c_str(), workDirectoryDescriptor()));
}

void Truncations::work() {
  // After a failure the steps stay untried, and settle() performs them.
  const Result opened = openFileset();
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
    if (ending_) return;
    Step step = std::move(waiting_.front());
    waiting_.pop_front();
    working_ = true;
    lock.unlock();
    Result done = opened;
    if (opened) {
      done = called(kest_truncate(fileset_, step.path.c_str(), step.size, step.ino));
      step.err = done.err;
    }
    lock.lock();
    if (!done) failed_.push_back(std::move(step));
    working_ = false;
    if (waiting_.empty()) changed_.notify_all();  // settle() may wait for that
  }
}

Result Truncations::settle() {
  std::vector<Step> refused;
  {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return waiting_.empty() && !working_; });
    refused.assign(std::make_move_iterator(failed_.begin()), std::make_move_iterator(failed_.end()));
    failed_.clear();
  }
  for (const Step &step : refused) {
    // A flag forbade it, or the path has to be resolved again.
    const bool again = step.err == EPERM || step.err == EROFS || step.err == ENOENT ||
                       step.err == ESTALE || step.err == ELOOP || step.err == EXDEV;
    if (const Result r = again || step.err == 0 ? truncateNow(step) : failed(kTruncate, step.err); !r) {
      traceLog("cannot truncate file %s to %ld, rc %d, code %d, error %d\n", step.path.c_str(),
               step.size, r.rc, r.code, r.err);
      return failedAt(step.path, r);
    }
  }
  return {};
}

Result truncateListed(const Truncations::Step &step) {
  if (truncations == nullptr) return truncateNow(step);
  return truncations->add(step) ? Result{} : truncations->settle();
}

Result settleTruncations() {
  return truncations == nullptr ? Result{} : truncations->settle();
}
