// test_nodes.h: nodes n1, n2... on this machine, which mount a CephFS and are reached by ssh; see
// tools/test-nodes. Needs root. Meant for the private namespace, because its end also ends the nodes.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/restore_run.h"

namespace testsupport {

class TestNodes {
 public:
  // Gives this process a network of its own, in which a CephCluster is to be started afterwards.
  static void makeNetwork();

  // Starts the nodes, each with the CephFS of CEPH_CONF at `mount`.
  TestNodes(const std::string &mount, int count);
  ~TestNodes();
  TestNodes(const TestNodes &) = delete;
  TestNodes &operator=(const TestNodes &) = delete;

  // Arguments and options of runProgram or Running that run a program on a node.
  std::vector<std::string> words(int node, std::vector<std::string> command) const;
  RunOptions options() const;
  // Runs a shell command on a node; throws if it fails.
  void shell(int node, const std::string &command) const;
  // Takes a node off the network ("cut") and back ("join"), or kills it ("kill") and starts it again
  // ("restart").
  void change(const std::string &verb, int node) const;

  // A process of the node whose command line holds `text`; 0: there is none.
  pid_t find(int node, const std::string &text) const;
  // Returns the command lines of all processes of restores, on any node and on this machine.
  static std::vector<std::string> atWork();

 private:
  std::string folder_ = "/mnt/test.nodes";
};

}  // namespace testsupport
