// fault_plan.h: lets calls that the restore makes to its file-system library fail, or the process that
// makes them die, anywhere in a run: master, engine and workers share one count.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

enum class FaultAction {
  kFail,        // the call is not made and fails with `error`
  kKillBefore,  // SIGKILL of the calling process instead of the call
  kKillAfter,   // SIGKILL once the call was made
  kKillEngine,  // SIGKILL of the policy engine that started the calling process, which ends with it
};

inline constexpr int kAnyProcess = -1;
inline constexpr int kAnyWorker = -2;
inline constexpr int kMaster = 0;

struct Fault {
  const char *call = "*";  // "kest_unlink"; "*" is every call
  FaultAction action = FaultAction::kFail;
  int error = 0;            // kFail alone
  int where = kAnyProcess;  // or the phase of a worker
  uint64_t nth = 1;         // the first call that it strikes, of those that call and phase name
  uint64_t step = 1;        // and every step-th after it,
  uint32_t times = 1;       // until it struck so often; 0: for ever

  std::string words() const;  // for messages
};

// Not a call of the restore's: how often the library searches the trees.
inline constexpr const char *kTreeSearch = "tree search";
// Not a call either: programs started, shells and commands included.
inline constexpr const char *kProgramStart = "program start";

// The file that the preloaded fault library, in every process of a run, and the test share.
struct FaultRecord {
  static constexpr uint32_t kCalls = 96, kPhases = 64;
  static constexpr const char *kVariable = "KEST_FAULT_RECORD";  // in the environment: its path

  Fault fault;
  char call[40];                 // the fault's: its own is a pointer of the test's
  std::atomic<uint64_t> calls;   // that the fault names, of all processes
  std::atomic<uint32_t> struck;  // times that the fault happened
  // Every call of the run, whatever the fault names, and what is counted besides; phase 0 is the
  // master.
  struct Made {
    char call[40];
    std::atomic<uint32_t> inPhase[kPhases];
  } made[kCalls];
};
static_assert(std::atomic<uint64_t>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free);

// One run's fault. The environment is for that run alone; the record goes with this object.
class FaultPlan {
 public:
  explicit FaultPlan(const Fault &fault);
  ~FaultPlan();
  FaultPlan(const FaultPlan &) = delete;
  FaultPlan &operator=(const FaultPlan &) = delete;

  std::vector<std::pair<std::string, std::string>> environment() const;
  uint32_t struck() const { return record_->struck; }
  // How often each call was made, by phase; 0 is the master.
  std::map<std::pair<std::string, int>, uint32_t> made() const;
  std::string describe() const;  // the plan, and what became of it

 private:
  std::string file_;
  FaultRecord *record_;
};

}  // namespace testsupport
