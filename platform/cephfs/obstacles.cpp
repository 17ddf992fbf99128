#include "cephfs/obstacles.h"

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>

#include "cephfs/inode_compare.h"
#include "cephfs/names.h"
#include "filesystem/running_programs.h"

namespace kest {

namespace {

// Whether a restore would write to the file. 1, 0 or -errno.
int dataDiffer(const CephRoot &active, const CephRoot &snapshot, uint64_t ino) {
  kest_change_t change;
  const int rc = describeChange(active, snapshot, ino, &change);
  if (rc < 0) return rc == -ENOENT ? 0 : rc;
  return change.ch_regular &&
         (change.ch_size != change.ch_snap_size || change.ch_length != 0 || change.ch_other_storage);
}

int report(const CephRoot &active, uint64_t ino, const ObstacleVisitor &visit) {
  InodeNames names;
  const int rc = findNamesOf(active, ino, &names);
  if (rc < 0) return rc;
  const std::string name = names.paths.empty() ? "?" : names.paths.front();
  visit(KEST_OB_RUNS, (active.path == "/" ? "" : active.path) + "/" + name);
  return 0;
}

}  // namespace

// The file system does not prevent another client from writing to a running program, whose pages would
// then change while it runs. So a program whose data differ is made again.
int findObstacles(const CephRoot &active, const CephRoot &snapshot, Difference *difference,
                  const ObstacleVisitor &visit) {
  for (const uint64_t ino : runningPrograms(active.device)) {
    const DiffInode one = difference->set().find(ino);
    if (!one.alive() || !one.inSnapshot()) continue;
    const int differs = dataDiffer(active, snapshot, ino);
    if (differs < 0) return differs;
    if (differs == 0) continue;
    difference->noteRunning(ino);
    if (int rc = report(active, ino, visit); rc < 0) return rc;
  }
  return 0;
}

}  // namespace kest
