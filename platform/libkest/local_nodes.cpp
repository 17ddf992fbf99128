#include <string>

#include "btrfs/local_nodes.h"
#include "kest.h"
#include "libkest/c_call.h"

extern "C" int kest_other_node(const char *nodes, char *node, size_t size) {
  return kest::cCall([&] {
    if (nodes == nullptr || node == nullptr || size == 0) return -EINVAL;
    std::string other;
    if (kest::nodesAreLocal(nodes, &other)) return 0;
    node[other.copy(node, size - 1)] = '\0';
    return 1;
  });
}
