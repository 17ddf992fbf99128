// ktapplypolicy, the policy engine: passes the records of a list to an external script, in parallel.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/file_io.h"
#include "engine/batch_run.h"
#include "engine/list_parts.h"
#include "engine/node_ask.h"
#include "engine/node_list.h"
#include "engine/node_run.h"
#include "engine/node_shell.h"
#include "engine/options.h"
#include "engine/run_directory.h"
#include "engine/worker_slots.h"
#include "formats/list_record.h"
#include "formats/policy_text.h"
#include "formats/work_names.h"

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

// Opens the list and reads all of it once, or the range of a part, because a damaged list must not be
// executed in part.
Result openList(const Options &options, const RunDirectory &directory, ListReader *list,
                const PartOrder &part, uint64_t *records, std::string *problem) {
  UniqueFd fd;
  Result r = directory.openFile(options.list, O_RDONLY, &fd);
  if (r) r = list->open(std::move(fd));
  if (!r) {
    *problem = options.list + ": " + strerror(r.err);
    return r;
  }
  ListedRecord record;
  bool end = false;
  const uint64_t to = options.part.empty() ? UINT64_MAX : part.to;
  list->seek(part.from);
  for (*records = 0; list->position() < to && (r = list->next(&record, &end)) && !end;) ++*records;
  if (!r) *problem = "list " + options.list + ": " + list->problem();
  // The list must have the range: it may not have become shorter.
  if (r && to != UINT64_MAX && list->position() != to) {
    *problem = "list " + options.list + ": it has changed";
    r = errnoResult(EINVAL);
  }
  list->seek(part.from);
  return r;
}

int report(const RunOutcome &outcome, uint64_t records, const char *what) {
  printf("%llu records in %llu %s, %llu failed%s\n", static_cast<unsigned long long>(outcome.records),
         static_cast<unsigned long long>(outcome.batches), what,
         static_cast<unsigned long long>(outcome.failed), outcome.good() ? "" : ", run not completed");
  if (outcome.full || isFull(outcome.own_error)) return kNoSpace;
  // In a good run the number of records handed out must equal the number in the list.
  if (outcome.good() && outcome.records != records)
    return fail("of " + std::to_string(records) + " records " + std::to_string(outcome.records) +
                " were handed out");
  return outcome.good() ? 0 : kFailed;
}

// Runs batches on this machine. `part` is this node's part of a list that several nodes share, or null.
int runHere(const Options &options, const RunDirectory &directory, ListReader *list, uint64_t records,
            const PartOrder *part) {
  std::string problem;
  ScriptRule script;
  if (!readPolicy(options, directory, &script, &problem)) return fail(problem);
  WorkerSlots slots;
  size_t most = SIZE_MAX, number = 0;
  if (part != nullptr) {
    const char *host = getenv("PARALLEL_SSHLOGIN");
    const auto node = std::find_if(part->nodes.begin(), part->nodes.end(), [&](const Node &one) {
      return host != nullptr && one.name == host;
    });
    if (node == part->nodes.end()) return fail("this node is not in the list of nodes");
    most = node->share;
    number = node->number;
  }
  const bool waits = spansNodes(options.device);
  if (!slots.open(waits, &problem, most)) return fail(problem);
  const RunSignals signals;
  std::unique_ptr<RunLine> line;
  if (part != nullptr) {
    // The directory can have another device number on every node, so export the identity it has here.
    setenv(kEngineDirectoryVariable, directory.identity().c_str(), 1);
    setenv(kWorkDirectoryVariable, directory.identity().c_str(), 1);
    if (number != 0) setenv(kNodeVariable, std::to_string(number).c_str(), 1);
    line = std::make_unique<RunLine>();
  }
  const size_t most_here = std::min(options.max_workers, most);
  BatchRun run(
      {script, &directory, most_here,
       balancedBatchSize(records, std::min(most_here, slots.budget()), waits, options.batch_size),
       line.get()},
      &slots, &signals);
  if (!run.probe()) {
    (void)line.release();
    return fail(script.exec + " TEST failed, nothing was started");
  }
  const RunOutcome outcome = run.run(list, part != nullptr ? part->to : UINT64_MAX);
  // The thread of the line goes on until the process ends.
  (void)line.release();
  return report(outcome, records, "batches");
}

// Runs one part of a list, as the engine that this node works for has ordered.
int runPart(const Options &options, const RunDirectory &directory) {
  PartOrder part;
  std::string problem;
  if (!parsePartOrder(options.part, &part)) return fail("--part is not of this program's making");
  if (directory.inode() != part.directory)
    return fail(options.directory + " is another directory on this node");
  ListReader list(kListPiece);
  uint64_t records = 0;
  if (!openList(options, directory, &list, part, &records, &problem)) return fail(problem);
  return runHere(options, directory, &list, records, &part);
}

int applyPolicy(const Options &options) {
  std::string problem;
  std::vector<Node> nodes;
  if (!resolveNodes(options.nodes, options.device, &nodes, &problem)) return fail(problem);
  if (!options.ask.empty()) {
    for (const char *program : {kParallel, kSsh})
      if (!isLocalAlone(nodes) && access(program, X_OK) != 0)
        return fail(std::string(program) + ", by which other nodes are reached: " + strerror(errno));
    printf("%zu\n", nodes.size());
    return askNodes(nodes, options.ask, options.answer) ? 0 : kFailed;
  }
  RunDirectory directory;
  if (const Result r = directory.open(options.directory); !r)
    return fail(options.directory + ": " + strerror(r.err));
  if (!options.part.empty()) return runPart(options, directory);
  ListReader list(kListPiece);
  uint64_t records = 0;
  if (!openList(options, directory, &list, {}, &records, &problem)) return fail(problem);
  // A run that a worker starts stays on its node.
  if (WorkerSlots::isNested() || isLocalAlone(nodes))
    return runHere(options, directory, &list, records, nullptr);

  dropLostNodes(directory, &nodes);
  if (nodes.empty()) return fail("every node of this run is lost");
  divideWorkers(options.max_workers, &nodes);
  std::vector<ListPart> parts;
  if (const Result r = cutList(&list, nodes.size(), &parts); !r)
    return fail("list " + options.list + ": " + list.problem());
  // A list that makes only one part is finished sooner on this machine.
  const bool here =
      std::any_of(nodes.begin(), nodes.end(), [](const Node &node) { return node.isLocal(); });
  if ((here && parts.size() <= 1) || isLocalAlone(nodes))
    return runHere(options, directory, &list, records, nullptr);
  ScriptRule script;
  if (!readPolicy(options, directory, &script, &problem)) return fail(problem);
  const RunSignals signals;
  return report(NodeRun(options, &directory, &signals, nodes).run(parts), records, "parts");
}

}  // namespace

int main(int argc, char **argv) {
  // See engine/node_shell.h.
  if (argc > 1 && strcmp(argv[1], "--node-shell") == 0) return runNodeShell(argc, argv);
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
