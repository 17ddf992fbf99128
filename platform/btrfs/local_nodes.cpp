#include "btrfs/local_nodes.h"

#include <unistd.h>
#include <algorithm>

namespace kest {

bool nodesAreLocal(const std::string &nodes, std::string *foreign) {
  char buffer[256] = "";
  gethostname(buffer, sizeof(buffer) - 1);
  std::string host = buffer;
  std::string short_host = host.substr(0, host.find('.'));
  size_t at = 0;
  while (at <= nodes.size()) {
    size_t end = std::min(nodes.find(',', at), nodes.size());
    std::string node = nodes.substr(at, end - at);
    if (node != "all" && node != "localhost" &&
        (node.empty() || (node != host && node != short_host))) {
      *foreign = node;
      return false;
    }
    at = end + 1;
  }
  return true;
}

}  // namespace kest
