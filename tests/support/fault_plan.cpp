#include "support/fault_plan.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "support/descriptor.h"

namespace testsupport {

std::string Fault::words() const {
  static constexpr const char *kActions[] = {"fail", "kill-before", "kill-after", "kill-engine"};
  char text[200];
  snprintf(text, sizeof text, "%s %s %d %d %llu %llu %u", call.c_str(),
           kActions[static_cast<int>(action)], error, where, static_cast<unsigned long long>(nth),
           static_cast<unsigned long long>(step), times);
  return text;
}

FaultPlan::FaultPlan(const Fault &fault) : words_(fault.words()), file_("/mnt/fault.XXXXXX") {
  Descriptor fd(mkostemp(file_.data(), O_CLOEXEC));
  if (!fd.valid()) failWithErrno("create " + file_);
  if (ftruncate(fd.get(), sizeof(FaultRecord)) != 0) failWithErrno("size " + file_);
  void *there = mmap(nullptr, sizeof(FaultRecord), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (there == MAP_FAILED) failWithErrno("map " + file_);
  record_ = static_cast<FaultRecord *>(there);
}

FaultPlan::~FaultPlan() {
  munmap(record_, sizeof(FaultRecord));
  unlink(file_.c_str());
}

std::vector<std::pair<std::string, std::string>> FaultPlan::environment() const {
  std::vector<std::pair<std::string, std::string>> variables{
      {"LD_PRELOAD", KEST_FAULTS_LIBRARY}, {kFaultPlanVariable, words_}, {kFaultRecordVariable, file_}};
  // A program built with sanitizers wants its runtime to be the first library.
  const char *asan = getenv("ASAN_OPTIONS");
  variables.emplace_back("ASAN_OPTIONS",
                         (asan ? std::string(asan) + ":" : "") + "verify_asan_link_order=0");
  return variables;
}

std::map<std::pair<std::string, int>, uint32_t> FaultPlan::made() const {
  std::map<std::pair<std::string, int>, uint32_t> counts;
  for (const FaultRecord::Made &one : record_->made)
    for (uint32_t phase = 0; phase < FaultRecord::kPhases; ++phase)
      if (one.inPhase[phase] != 0) counts[{one.call, static_cast<int>(phase)}] = one.inPhase[phase];
  return counts;
}

std::string FaultPlan::describe() const {
  std::string text = "fault \"" + words_ + "\": " + std::to_string(calls()) + " calls, struck " +
                     std::to_string(struck()) + " times";
  for (uint32_t i = 0; i < std::min(struck(), FaultRecord::kMostNoted); ++i) {
    const FaultRecord::Strike &one = record_->noted[i];
    text += "\n  call " + std::to_string(one.nth) + ", " + one.call + " in process " +
            std::to_string(one.process) + ", phase " + std::to_string(one.phase);
  }
  return text + "\n";
}

}  // namespace testsupport
