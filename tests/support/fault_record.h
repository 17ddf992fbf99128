// fault_record.h: the file that the preloaded fault library, in every process of a run, and the test
// share.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>

namespace testsupport {

// Environment variables that the fault library reads: the plan in words, and the path of the record.
inline constexpr const char *kFaultPlanVariable = "KEST_FAULT";
inline constexpr const char *kFaultRecordVariable = "KEST_FAULT_RECORD";

// Not a call of the restore's: how often the library searches the trees.
inline constexpr const char *kTreeSearch = "tree search";

// Not a call either: programs started, shells and commands included.
inline constexpr const char *kProgramStart = "program start";

struct FaultRecord {
  static constexpr uint32_t kMostNoted = 8, kCalls = 64, kPhases = 64;

  std::atomic<uint64_t> calls;   // that the plan names, of all processes
  std::atomic<uint32_t> struck;  // times that the fault happened
  struct Strike {
    uint64_t nth;
    pid_t process;
    int32_t phase;  // 0: the master
    char call[40];
  } noted[kMostNoted];  // the first ones
  // Every call of the run, whatever the plan names, and tree searches; phase 0 is the master.
  struct Made {
    char call[40];
    std::atomic<uint32_t> inPhase[kPhases];
  } made[kCalls];
};
static_assert(std::atomic<uint64_t>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free);

}  // namespace testsupport
