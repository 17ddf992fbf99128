// fault_plan.h: makes calls of the restore to its file-system library fail, or kills the calling
// process, anywhere in a run. Master, engine and workers share one count.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

enum class FaultAction {
  kFail,        // do not make the call; it fails with `error`
  kKillBefore,  // SIGKILL to the calling process instead of the call
  kKillAfter,   // SIGKILL after the call
  kKillEngine,  // SIGKILL to the engine of the calling process, which dies with it
};

inline constexpr int kAnyProcess = -1;
inline constexpr int kAnyWorker = -2;
inline constexpr int kMaster = 0;

struct Fault {
  const char *call = "*";  // such as "kest_unlink"; "*" is every call
  FaultAction action = FaultAction::kFail;
  int error = 0;            // only for kFail
  int where = kAnyProcess;  // or the phase of a worker
  uint64_t nth = 1;         // strikes first at this one of the matching calls
  uint64_t step = 1;        // and then at every step-th one
  uint32_t times = 1;       // so many times at most; 0: without limit

  std::string words() const;  // for messages
};

// Counted like a call: searches of the library in the trees.
inline constexpr const char *kTreeSearch = "tree search";
// Counted like a call: programs started, including shells and commands.
inline constexpr const char *kProgramStart = "program start";

// The file shared by the preloaded fault library in every process of a run and the test.
struct FaultRecord {
  static constexpr uint32_t kCalls = 96, kPhases = 64;
  static constexpr const char *kVariable = "KEST_FAULT_RECORD";  // environment variable with its path

  Fault fault;
  char call[40];                 // copy of fault.call, a pointer that only the test can use
  std::atomic<uint64_t> calls;   // matching calls of all processes
  std::atomic<uint32_t> struck;  // how often the fault struck
  // All calls of the run, matching or not, and the other counts. Phase 0 is the master.
  struct Made {
    char call[40];
    std::atomic<uint32_t> inPhase[kPhases];
  } made[kCalls];
};
static_assert(std::atomic<uint64_t>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free);

// The fault of one run. The environment is only for that run; the record is deleted with this object.
class FaultPlan {
 public:
  explicit FaultPlan(const Fault &fault);
  ~FaultPlan();
  FaultPlan(const FaultPlan &) = delete;
  FaultPlan &operator=(const FaultPlan &) = delete;

  std::vector<std::pair<std::string, std::string>> environment() const;
  uint32_t struck() const { return record_->struck; }
  // Returns how often each call was made, by phase; 0 is the master.
  std::map<std::pair<std::string, int>, uint32_t> made() const;
  std::string describe() const;  // the plan and what happened

 private:
  std::string file_;
  FaultRecord *record_;
};

}  // namespace testsupport
