// One run of the engine on several nodes: hands parts of the list to their engines by GNU parallel.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "engine/batch_run.h"
#include "engine/list_parts.h"
#include "engine/node_list.h"
#include "engine/options.h"
#include "engine/run_line.h"

// GNU parallel runs one part at a time on each node, and gives a part that a node has lost to another
// one. After the first failure no node begins another batch; a signal ends the workers of all nodes.
class NodeRun {
 public:
  // `directory` and `signals` must outlive this object.
  NodeRun(const Options &options, const RunDirectory *directory, const RunSignals *signals,
          std::vector<Node> nodes);
  ~NodeRun();

  // Returns when nothing works for the run on any node. `full` also means the exit status of a worker;
  // `failed` counts the parts that were not done.
  RunOutcome run(const std::vector<ListPart> &parts);

 private:
  Result prepare(const std::vector<ListPart> &parts);
  Result writeState(const std::string &name, const std::string &text) const;
  std::string partCommand(const ListPart &part) const;
  Result start(pid_t *parallel);
  void follow(pid_t parallel);
  void look();
  void noteLost();
  void handleSignals(pid_t parallel);
  void readJobLog(const std::vector<ListPart> &parts);

  const Options &options_;
  const RunDirectory *directory_;
  const RunSignals *signals_;
  const std::vector<Node> nodes_;
  const std::vector<pid_t> earlier_children_;
  std::string state_;   // a directory of this machine; "" before it is made
  std::string marker_;  // kNodeRun in the run directory; "" before it is made
  std::set<size_t> lost_;
  std::chrono::steady_clock::time_point stopped_at_;
  RunOutcome outcome_;
};
