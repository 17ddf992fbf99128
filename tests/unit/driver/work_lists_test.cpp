// What the driver reads from the work directory between phases.
#include <cerrno>

#include "driver/clone_depths.h"
#include "driver/dir_records.h"
#include "driver/final_dir_move.h"
#include "object/clone_origin.h"
#include "oplist/clone_lists.h"
#include "record/record_format.h"
#include "unit/support/work_area.h"

namespace {

class WorkLists : public WorkArea {
 protected:
  void expectDepths(CloneLists lists, const std::vector<int> &expected) {
    std::vector<int> depths;
    EXPECT_EQ(listedCloneDepths(lists, &depths), 0);
    EXPECT_EQ(depths, expected);
  }
};

TEST_F(WorkLists, ClonesDeeperThanAnyListGoWithTheDeepestAndAreNotMade) {
  CloneAttr attr;
  attr.bytes[14] = 4;  // depth 1024
  EXPECT_EQ(listClone("/m/old", true, attr), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(listClone("/m/new", false, attr), EINVAL);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("/m/new"), std::string::npos);
  expectDepths(CloneLists::kDelete, {1001});
  expectDepths(CloneLists::kRestore, {});
  for (const char *name : {"clone.del.0", "clone.del.70", "clone.del.70.original", "clone.del.",
                           "clone.0", "clone.1", "clone.1000", "clone.x", "clone.-1", "clone.3"})
    put(name, "");
  expectDepths(CloneLists::kDelete, {1001, 70, 0});
  expectDepths(CloneLists::kRestore, {0, 1, 3, 1000});
}

// Without the list nobody knows whether the snapshot is there: no answer is not "gone".
TEST_F(WorkLists, SnapshotsThatCouldNotBeListedAreNotMissing) {
  for (int asked = 0; asked < 2; ++asked) {
    errno = 0;
    EXPECT_EQ(otherSnapshot(7), nullptr);
    EXPECT_EQ(errno, EIO);
  }
}

TEST_F(WorkLists, DirRecordsOnceEach) {
  const auto record = [](int aggregate, uint64_t ino, const std::string &path) {
    return formatListRecord(aggregate, ino, path, "3,0,0,0,0");
  };
  const std::string a = record(0, 300, "/m/a\nb"), again = record(9, 300, "/m/a\nb");
  const std::string others = record(9, 300, "/m/c") + record(1, 301, "/m/c");
  put(kDirNew, a + again + others + a);
  EXPECT_EQ(takeDirRecords(at(kDirNew), at("dir.last")), 0);
  EXPECT_EQ(get("dir.last"), a + others);
  EXPECT_FALSE(exists(kDirNew));
}

TEST_F(WorkLists, DamageIsNoticed) {
  put(kDirNew, formatListRecord(0, 300, "/m/a", "3,0,0,0,0").substr(0, 20));
  EXPECT_EQ(takeDirRecords(at(kDirNew), at("dir.last")), EIO);
  EXPECT_TRUE(exists(kDirNew));
  EXPECT_EQ(doFinalDirMove(), ENOENT);
  put(kDirMoveList, "300\nxyz\n");
  EXPECT_EQ(doFinalDirMove(), EIO);
}

}  // namespace
