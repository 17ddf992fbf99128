#include "driver/clone_depths.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string>
#include <string_view>

#include "cfgmgr/messages.h"
#include "oplist/clone_lists.h"
#include "run/settings.h"
#include "run/work_access.h"
#include "run/work_dir.h"

namespace {

// The <d> of "<prefix><d>"; -1 for every other name.
int depthOf(std::string_view name, std::string_view prefix) {
  if (!name.starts_with(prefix)) return -1;
  name.remove_prefix(prefix.size());
  int depth = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), depth);
  return error == std::errc() && end == name.data() + name.size() && depth >= 0 ? depth : -1;
}

}  // namespace

int listedCloneDepths(CloneLists kind, std::vector<int> *depths) {
  const bool del = kind == CloneLists::kDelete;
  const std::string_view prefix = del ? "clone.del." : "clone.";
  const int deepest = del ? kDeepestDeleted : kDeepestRestored;
  depths->clear();
  const Dir dir = openWorkList(settings.shareDir);
  if (!dir) return errno;
  for (;;) {
    errno = 0;
    const dirent *entry = readdir(dir.get());
    if (!entry) break;
    const int depth = depthOf(entry->d_name, prefix);
    if (depth < 0) continue;
    if (depth > deepest) {
      userMessage(Message::kCloneListTooDeep, deepest, workPath(entry->d_name));
      return EINVAL;
    }
    depths->push_back(depth);
  }
  if (errno != 0) return errno;
  std::sort(depths->begin(), depths->end());
  if (del) std::reverse(depths->begin(), depths->end());
  return 0;
}
