#include "support/fault_plan.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>

#include "support/descriptor.h"

namespace testsupport {

std::string Fault::words() const {
  static constexpr const char *kActions[] = {"fail", "kill before", "kill after", "kill engine"};
  return std::string(kActions[static_cast<int>(action)]) + " " + call + ", error " +
         std::to_string(error) + ", phase " + std::to_string(where) + ", call " + std::to_string(nth) +
         " and each " + std::to_string(step) + ", times " + std::to_string(times);
}

FaultPlan::FaultPlan(const Fault &fault) : file_("/mnt/fault.XXXXXX") {
  Descriptor fd(mkostemp(file_.data(), O_CLOEXEC));
  if (!fd.valid() || ftruncate(fd.get(), sizeof(FaultRecord)) != 0) failWithErrno("create " + file_);
  void *there = mmap(nullptr, sizeof(FaultRecord), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (there == MAP_FAILED) failWithErrno("map " + file_);
  record_ = static_cast<FaultRecord *>(there);
  record_->fault = fault;
  snprintf(record_->call, sizeof record_->call, "%s", fault.call);
}

FaultPlan::~FaultPlan() {
  munmap(record_, sizeof(FaultRecord));
  unlink(file_.c_str());
}

std::vector<std::pair<std::string, std::string>> FaultPlan::environment() const {
  // A program built with sanitizers requires its runtime to be the first library.
  const char *asan = getenv("ASAN_OPTIONS");
  return {{"LD_PRELOAD", KEST_FAULTS_LIBRARY},
          {FaultRecord::kVariable, file_},
          {"ASAN_OPTIONS", (asan ? std::string(asan) + ":" : "") + "verify_asan_link_order=0"}};
}

std::map<std::pair<std::string, int>, uint32_t> FaultPlan::made() const {
  std::map<std::pair<std::string, int>, uint32_t> counts;
  for (const FaultRecord::Made &one : record_->made)
    for (uint32_t phase = 0; phase < FaultRecord::kPhases; ++phase)
      if (one.inPhase[phase] != 0) counts[{one.call, static_cast<int>(phase)}] = one.inPhase[phase];
  return counts;
}

std::string FaultPlan::describe() const {
  return "fault \"" + record_->fault.words() + "\": " + std::to_string(record_->calls) +
         " calls, struck " + std::to_string(struck()) + " times\n";
}

}  // namespace testsupport
