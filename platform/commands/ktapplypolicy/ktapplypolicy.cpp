// Executes a list of records through an external script, in parallel.

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "btrfs/local_nodes.h"
#include "commands/ktapplypolicy/batch_run.h"
#include "commands/ktapplypolicy/options.h"

namespace kest {
namespace {

constexpr int kFailed = 1;
constexpr int kNoSpace = 28;

int fail(const std::string &text) {
  fprintf(stderr, "ktapplypolicy: %s\n", text.c_str());
  return kFailed;
}

// Reads the whole list once: a damaged one must not be executed half.
bool checkList(const Options &options, const RunDirectory &directory, RecordList *list,
               uint64_t *records, std::string *problem) {
  int rc = list->open(options.list, directory);
  if (rc < 0) {
    *problem = options.list + ": " + strerror(-rc);
    return false;
  }
  ListRecord record;
  for (*records = 0; (rc = list->next(&record)) > 0; ++*records) {
  }
  if (rc < 0) *problem = "list " + options.list + ": " + list->problem();
  list->rewind();
  return rc == 0;
}

int applyPolicy(const Options &options) {
  std::string problem;
  std::string foreign;
  if (!nodesAreLocal(options.nodes, &foreign)) {
    return fail("node \"" + foreign + "\" is not this machine: this file system is local, workers on " +
                "other nodes need a clustered one");
  }
  RunDirectory directory;
  int rc = directory.open(options.directory);
  if (rc < 0) return fail(options.directory + ": " + strerror(-rc));
  ScriptRule script;
  if (!readPolicyFile(directory, options.policy, &script, &problem)) {
    return fail("policy " + options.policy + ": " + problem);
  }
  RecordList list;
  uint64_t records = 0;
  if (!checkList(options, directory, &list, &records, &problem)) return fail(problem);

  WorkerSlots slots;
  if (!slots.open(&problem)) return fail(problem);
  RunSignals signals;
  LocalStarter starter(signals.workerMask());
  BatchRun run({script, &directory, options.max_workers, options.batch_size}, &slots, &starter,
               &signals);
  if (!run.probe()) return fail(script.exec + " TEST failed, nothing was started");
  RunOutcome outcome = run.run(&list);
  printf("%llu records in %llu batches, %llu failed%s\n",
         static_cast<unsigned long long>(outcome.records),
         static_cast<unsigned long long>(outcome.batches),
         static_cast<unsigned long long>(outcome.failed), outcome.good() ? "" : ", run not completed");
  if (outcome.full || isFull(outcome.own_error)) return kNoSpace;
  if (outcome.good() && outcome.records != records)
    return fail("of " + std::to_string(records) + " records " + std::to_string(outcome.records) +
                " were handed out");
  return outcome.good() ? 0 : kFailed;
}

}  // namespace
}  // namespace kest

int main(int argc, char **argv) {
  kest::Options options;
  std::string problem;
  if (!kest::parseOptions(argc, argv, &options, &problem)) {
    fprintf(stderr, "ktapplypolicy: %s\n%s", problem.c_str(), kest::kUsage);
    return 1;
  }
  if (options.help) {
    fputs(kest::kUsage, stdout);
    return 0;
  }
  return kest::applyPolicy(options);
}
