// fault_plan.h: lets calls that the restore makes to its file-system library fail, or the process that
// makes them die, anywhere in a run: master, engine and workers share one count.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/fault_record.h"

namespace testsupport {

enum class FaultAction {
  kFail,        // the call is not made and fails with `error`
  kKillBefore,  // SIGKILL of the calling process instead of the call
  kKillAfter,   // SIGKILL once the call was made
  kKillEngine,  // SIGKILL of the policy engine above the calling process, which has to end with it
};

inline constexpr int kAnyProcess = -1;
inline constexpr int kAnyWorker = -2;
inline constexpr int kMaster = 0;

struct Fault {
  std::string call = "*";  // "kest_unlink"; "*" is every call
  FaultAction action = FaultAction::kFail;
  int error = 0;            // kFail alone
  int where = kAnyProcess;  // or the phase of a worker
  uint64_t nth = 1;         // the first call that it strikes, of those that call and phase name
  uint64_t step = 1;        // and every step-th after it,
  uint32_t times = 1;       // until it struck so often; 0: for ever

  std::string words() const;  // as the library reads it
};

// One run's fault. The environment is for that run alone; the record goes with this object.
class FaultPlan {
 public:
  explicit FaultPlan(const Fault &fault);
  ~FaultPlan();
  FaultPlan(const FaultPlan &) = delete;
  FaultPlan &operator=(const FaultPlan &) = delete;

  std::vector<std::pair<std::string, std::string>> environment() const;
  uint64_t calls() const { return record_->calls; }
  uint32_t struck() const { return record_->struck; }
  // How often each call was made, by phase; 0 is the master.
  std::map<std::pair<std::string, int>, uint32_t> made() const;
  std::string describe() const;  // the plan, and what became of it

 private:
  std::string words_, file_;
  FaultRecord *record_;
};

}  // namespace testsupport
