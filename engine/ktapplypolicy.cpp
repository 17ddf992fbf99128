// ktapplypolicy, the policy engine: passes the records of a list to an external script, in parallel.

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/file_io.h"
#include "base/local_nodes.h"
#include "engine/batch_run.h"
#include "engine/options.h"
#include "engine/run_directory.h"
#include "engine/worker_slots.h"
#include "formats/list_record.h"
#include "formats/policy_text.h"

namespace {

constexpr int kFailed = 1;
constexpr int kNoSpace = 28;
constexpr size_t kPolicyMost = 1 << 20;  // bytes
constexpr size_t kListPiece = 1 << 20;   // bytes of one read

int fail(const std::string &text) {
  fprintf(stderr, "ktapplypolicy: %s\n", text.c_str());
  return kFailed;
}

// *problem explains a failure.
Result readPolicy(const Options &options, const RunDirectory &directory, ScriptRule *script,
                  std::string *problem) {
  UniqueFd fd;
  std::string text;
  Result r = directory.openFile(options.policy, O_RDONLY, &fd);
  if (r) r = readToEnd(fd.get(), &text, kPolicyMost + 1);
  if (!r) {
    *problem = strerror(r.err);
  } else if (text.size() > kPolicyMost) {
    *problem = "larger than a policy can be";
    r = errnoResult(EFBIG);
  } else if (!parsePolicy(text, script, problem)) {
    r = errnoResult(EINVAL);
  }
  if (!r) *problem = "policy " + options.policy + ": " + *problem;
  return r;
}

// Opens the list and reads all of it once, because a damaged list must not be executed in part.
Result openList(const Options &options, const RunDirectory &directory, ListReader *list,
                uint64_t *records, std::string *problem) {
  UniqueFd fd;
  Result r = directory.openFile(options.list, O_RDONLY, &fd);
  if (r) r = list->open(std::move(fd));
  if (!r) {
    *problem = options.list + ": " + strerror(r.err);
    return r;
  }
  ListRecord record;
  bool end = false;
  for (*records = 0; (r = list->next(&record, &end)) && !end;) ++*records;
  if (!r) *problem = "list " + options.list + ": " + list->problem();
  list->seek(0);
  return r;
}

int applyPolicy(const Options &options) {
  std::string problem;
  std::string foreign;
  if (!nodesAreLocal(options.nodes, &foreign))
    return fail("node \"" + foreign + "\" is not this machine: this file system is local, workers on " +
                "other nodes need a clustered one");
  RunDirectory directory;
  if (const Result r = directory.open(options.directory); !r)
    return fail(options.directory + ": " + strerror(r.err));
  ScriptRule script;
  if (!readPolicy(options, directory, &script, &problem)) return fail(problem);
  ListReader list(kListPiece);
  uint64_t records = 0;
  if (!openList(options, directory, &list, &records, &problem)) return fail(problem);

  WorkerSlots slots;
  if (!slots.open(&problem)) return fail(problem);
  const RunSignals signals;
  const size_t workers = std::min(options.max_workers, slots.budget());
  BatchRun run({script, &directory, options.max_workers,
                balancedBatchSize(records, workers, options.batch_size)},
               &slots, &signals);
  if (!run.probe()) return fail(script.exec + " TEST failed, nothing was started");
  // In a good run the number of records handed out must equal the number that openList counted.
  const RunOutcome outcome = run.run(&list);
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

int main(int argc, char **argv) {
  Options options;
  std::string problem;
  if (!parseOptions(argc, argv, &options, &problem)) {
    fprintf(stderr, "ktapplypolicy: %s\n%s", problem.c_str(), kEngineUsage);
    return 1;
  }
  if (options.help || options.version) {
    fputs(options.help ? kEngineUsage : "ktapplypolicy " FSETRESTORE_VERSION "\n", stdout);
    return 0;
  }
  return applyPolicy(options);
}
