#include "plan/truncations.h"

#include <signal.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "object/name_calls.h"
#include "object/paths.h"
#include "plan/walk_failure.h"
#include "run/settings.h"
#include "run/trace_log.h"

namespace {

// Step codes of listChangedFile.
enum TruncationStep : int {
  kTruncate = 14,
  kClearFlags = 141,  // the flags that forbid the truncation
};

Truncations *only = nullptr;

Result truncateNow(const Truncations::Step &step) {
  bool clearing_failed = false;
  const Result r = truncatePath(step.path, step.size, step.ino, &clearing_failed);
  return r ? r : failed(clearing_failed ? kClearFlags : kTruncate, r.err);
}

}  // namespace

Truncations::Truncations() {
  only = this;
}

Truncations::~Truncations() {
  only = nullptr;
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
  if (fileset_ != nullptr) kest_free_fssnaphandle(fileset_);
}

void Truncations::add(Step step) {
  step.path = resolveOwnLinks(step.path);
  const std::lock_guard lock(mutex_);
  if (!thread_.joinable()) {
    // The main thread is to get the signals.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
      thread_ = std::thread([this] { work(); });
    } catch (const std::system_error &) {
      // settle() takes the steps that no thread takes.
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
  if (thread_.joinable()) {
    waiting_.push_back(std::move(step));
    changed_.notify_all();
  } else {
    failed_.push_back(std::move(step));
  }
}

void Truncations::work() {
  fileset_ =
      kest_get_fset_snaphandle_by_name(settings.deviceP.c_str(), settings.filesetP.c_str(), nullptr);
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
    if (waiting_.empty()) return;
    std::deque<Step> steps = std::exchange(waiting_, {});
    working_ = true;
    lock.unlock();
    std::vector<Step> failed;
    for (Step &step : steps) {
      if (fileset_ != nullptr && kest_truncate(fileset_, step.path.c_str(), step.size, step.ino) == 0)
        continue;
      step.err = fileset_ != nullptr ? errno : 0;
      failed.push_back(std::move(step));
    }
    lock.lock();
    for (Step &step : failed) failed_.push_back(std::move(step));
    working_ = false;
    changed_.notify_all();
  }
}

Result Truncations::settle() {
  std::vector<Step> refused;
  {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return waiting_.empty() && !working_; });
    refused = std::exchange(failed_, {});
  }
  for (const Step &step : refused) {
    const bool flags = step.err == EPERM || step.err == EROFS;
    if (const Result r = flags || step.err == 0 ? truncateNow(step) : failed(kTruncate, step.err); !r) {
      traceLog("cannot truncate file %s to %ld, rc %d, code %d, error %d\n", step.path.c_str(),
               step.size, r.rc, r.code, r.err);
      return failedAt(step.path, r);
    }
  }
  return {};
}

Result truncateListed(const Truncations::Step &step) {
  if (only == nullptr) return truncateNow(step);
  only->add(step);
  return {};
}

Result settleTruncations() {
  return only == nullptr ? Result{} : only->settle();
}
