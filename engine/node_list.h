// The nodes that share the work of a run, and the ssh command that reaches one of them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "engine/run_directory.h"

inline constexpr char kParallel[] = "/usr/bin/parallel", kSsh[] = "/usr/bin/ssh";
inline constexpr char kSshConfig[] = "/usr/qtx/kest/etc/ssh_config";  // ssh reads it if it exists

struct Node {
  std::string name;   // as ssh takes it
  size_t number = 0;  // its place in the list, from 1; 0 this machine
  size_t share = 0;   // workers that it may run at a time

  bool isLocal() const { return number == 0; }
};

// Returns true if `device` lies on a file system of a type that several nodes can mount.
bool spansNodes(const std::string &device);

// Resolves the argument of -N: names separated by commas, "all" for those in kNodesFile, or for this
// machine if there is no such file or if no other node can see `device`. Names that mean this machine
// count once. Returns false and *problem for a name that is no name of a node, for an unreadable file,
// for more than kMostNodes, and for another node if no other can see `device`.
bool resolveNodes(const std::string &list, const std::string &device, std::vector<Node> *nodes,
                  std::string *problem);

// Drops the nodes that the run in `directory` has lost.
void dropLostNodes(const RunDirectory &directory, std::vector<Node> *nodes);

// Divides `workers` among the nodes, and drops those for which none is left.
void divideWorkers(size_t workers, std::vector<Node> *nodes);

// Returns true if the list is this machine alone.
bool isLocalAlone(const std::vector<Node> &nodes);

// Returns the words of the command line that runs `command`, a text for the node's shell, on the node.
// ssh never prompts, and notices within seconds that the node does not answer.
std::vector<std::string> sshWords(const std::string &node, const std::string &command);
