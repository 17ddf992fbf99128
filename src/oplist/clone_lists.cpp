#include "oplist/clone_lists.h"

#include <algorithm>
#include <cerrno>
#include <unordered_set>

#include "cfgmgr/messages.h"
#include "record/side_list.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {
std::unordered_set<uint64_t> listed;
}

bool firstCloneListing(uint64_t ino) {
  return listed.insert(ino).second;
}

void resetCloneIndex() {
  listed.clear();
}

int listClone(const std::string &path, bool del, const CloneAttr &attr) {
  // Clones that are deeper than any list go with the deepest: the order of deletions is courtesy.
  const int depth = del ? std::min<int>(attr.depth(), kDeepestDeleted) : attr.depth();
  if (depth > kDeepestRestored && !del) {
    userMessage(Message::kCloneListTooDeep, kDeepestRestored, path);
    return errno = EINVAL;
  }
  const long long parent = static_cast<long long>(attr.parentIno());
  traceLog("listClone: path %s , realPath %s, fileSnapPath %s, ino %lld, depth %d del %d\n",
           path.c_str(), "", del ? path.c_str() : "", parent, depth, del);
  const std::string list = del ? cloneDeleteList(depth) : cloneList(depth);
  bool opened = false;
  const int err = appendSideRecord(list, list, attr.parentIno(), path,
                                   del ? kOpDeleteFile : kOpCloneFile, aggregates.regPend, &opened);
  if (err == 0) return 0;
  if (!opened) traceLog("listClone: open %s failed, ino %lld, err %d\n", list.c_str(), parent, err);
  const int code = !opened ? 3 : del ? 4 : 5;
  traceLog("listClone: path %s, ino %lld, rc %d, code %d, err %d\n", path.c_str(), parent, err, code,
           err);
  errno = err;
  return err;
}
