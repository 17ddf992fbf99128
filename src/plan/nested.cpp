#include "plan/nested.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include "messages/messages.h"
#include "object/junction.h"
#include "object/name_calls.h"
#include "object/paths.h"
#include "object/places.h"
#include "plan/walk_messages.h"
#include "records/side_lists.h"
#include "run/run_handles.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

struct Nested {
  uint64_t id = 0;
  std::string former;  // its path before the run
  uint64_t home_dir = 0;
  std::string home_path;  // path of that directory
  std::string home;
};

std::vector<Nested> aside;

// Sets *known if the snapshot has the fileset, and fills its home.
Result findHome(uint64_t id, bool *known, Nested *nested) {
  char name[256];
  const int found = kest_junction_home(handles.iscanP, id, &nested->home_dir, name);
  *known = found > 0;
  if (found < 0) return failedErrno(0);
  if (!*known) return {};
  std::vector<std::string> paths;
  if (Result r = findInodePaths(handles.oldFsP, nested->home_dir, handles.rootPath, &paths); !r)
    return r;
  nested->home_path = paths.front();
  nested->home = nested->home_path + "/" + name;
  return {};
}

Result moveAside(const std::string &path, const Nested &nested) {
  const std::string to = filesetLocation(nested.id);
  if (to.empty()) return errnoResult(ENAMETOOLONG);
  // Write the destination first, which also creates the bucket: no fileset may wait without a recorded
  // place.
  if (Result r = writeFilesetDestination(nested.home, nested.id); !r) return r;
  const Result moved = moveFilesetAside(path, to, nested.id);
  traceLog("settleNested: %s to %s, belongs at %s, err %d\n", path.c_str(), to.c_str(),
           nested.home.c_str(), moved.err);
  if (moved) aside.push_back(nested);
  return moved.err == ENOENT ? Result{} : moved;  // ENOENT: its owner removed it during the walk
}

Result bringHome(const Nested &nested) {
  const std::string from = filesetLocation(nested.id);
  const Result moved = moveFilesetHome(from, nested.home, nested.id);
  traceLog("bringNestedHome: %s to %s, err %d\n", from.c_str(), nested.home.c_str(), moved.err);
  if (moved.err == EEXIST || moved.err == ENOENT)
    return unlinkJunction(from, nested.former, nested.home);
  if (!moved) {
    userMessage(Message::kObjectFailed, nested.home, strerror(moved.err));
    return moved;
  }
  // The last step of the run restores the root directory's attributes anyway.
  if (nested.home_dir == handles.rootIno) return {};
  return listNewDir(nested.home_path, nested.home_dir);
}

}  // namespace

Result settleNested(const std::string &path, uint64_t id) {
  Nested nested{.id = id, .former = formerPath(path), .home_path = {}, .home = {}};
  bool known = false;
  if (Result r = findHome(id, &known, &nested); !r) return r;
  if (known) return moveAside(path, nested);
  const Result unlinked = unlinkJunction(path, nested.former);
  if (!unlinked) walkFailureTold();
  return unlinked;
}

Result bringNestedHome() {
  for (const Nested &nested : aside) {
    if (stopSignal() != 0) return errnoResult(EINTR);
    if (Result r = bringHome(nested); !r) return r;
  }
  aside.clear();
  return {};
}
