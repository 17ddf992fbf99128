// What the master reads from the work directory between phases.
#include <cerrno>

#include "formats/list_record.h"
#include "object/clones.h"
#include "records/side_lists.h"
#include "restore/late_lists.h"
#include "unit/support/work_area.h"

namespace {

class WorkLists : public WorkArea {
 protected:
  void expectDepths(CloneLists lists, const std::vector<int> &expected) {
    std::vector<int> depths;
    EXPECT_TRUE(listedCloneDepths(lists, &depths));
    EXPECT_EQ(depths, expected);
  }
};

TEST_F(WorkLists, ClonesDeeperThanAnyListGoWithTheDeepestAndAreNotMade) {
  CloneAttr attr;
  attr.bytes[14] = 4;  // depth 1024
  EXPECT_TRUE(listClone("/m/old", true, attr));
  testing::internal::CaptureStderr();
  EXPECT_EQ(listClone("/m/new", false, attr).rc, EINVAL);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("/m/new"), std::string::npos);
  expectDepths(CloneLists::kDelete, {1001});
  expectDepths(CloneLists::kRestore, {});
  attr.bytes[14] = 3, attr.bytes[15] = 0xe8;  // depth 1000, the deepest
  EXPECT_TRUE(listClone("/m/new", false, attr));
  expectDepths(CloneLists::kRestore, {1000});
  for (const char *name : {"clone.del.0", "clone.del.70", "clone.del.70.original", "clone.del.",
                           "clone.0", "clone.1", "clone.1000", "clone.x", "clone.-1", "clone.3"})
    put(name, "");
  expectDepths(CloneLists::kDelete, {1001, 70, 0});
  expectDepths(CloneLists::kRestore, {0, 1, 3, 1000});
}

// Without the list it is unknown whether the snapshot exists; that must not count as "gone".
TEST_F(WorkLists, SnapshotsThatCouldNotBeListedAreNotMissing) {
  for (int asked = 0; asked < 2; ++asked) {
    kest_fssnap_handle_t *handle = nullptr;
    EXPECT_EQ(otherSnapshot(7, &handle).err, EIO);
    EXPECT_EQ(handle, nullptr);
  }
}

TEST_F(WorkLists, DirRecordsOnceEach) {
  const auto record = [](int aggregate, uint64_t ino, const std::string &path) {
    return formatListRecord(aggregate, ino, path, {.opCode = kOpCrDir});
  };
  const std::string a = record(0, 300, "/m/a\nb"), again = record(9, 300, "/m/a\nb");
  const std::string others = record(9, 300, "/m/c") + record(1, 301, "/m/c");
  put(kDirNew, a + again + others + a);
  EXPECT_TRUE(takeDirRecords(at(kDirNew), at(kDirLast)));
  EXPECT_EQ(get(kDirLast), a + others);
  EXPECT_FALSE(exists(kDirNew));
}

TEST_F(WorkLists, DamageIsNoticed) {
  put(kDirNew, formatListRecord(0, 300, "/m/a", {.opCode = kOpCrDir}).substr(0, 20));
  EXPECT_EQ(takeDirRecords(at(kDirNew), at(kDirLast)).rc, EIO);
  EXPECT_TRUE(exists(kDirNew));
  EXPECT_EQ(doFinalDirMove().rc, ENOENT);
  put(kDirMoveList, "300\nxyz\n");
  EXPECT_EQ(doFinalDirMove().rc, EIO);
}

}  // namespace
