#include "base/local_nodes.h"

#include <unistd.h>

#include <algorithm>

bool isThisMachine(const std::string &node) {
  char buffer[256] = "";
  gethostname(buffer, sizeof buffer - 1);
  const std::string host = buffer;
  return node == "localhost" ||
         (!node.empty() && (node == host || node == host.substr(0, host.find('.'))));
}

bool nodesAreLocal(const std::string &nodes, std::string *foreign) {
  for (size_t at = 0; at <= nodes.size();) {
    const size_t end = std::min(nodes.find(',', at), nodes.size());
    const std::string node = nodes.substr(at, end - at);
    if (node != "all" && !isThisMachine(node)) {
      *foreign = node;
      return false;
    }
    at = end + 1;
  }
  return true;
}
