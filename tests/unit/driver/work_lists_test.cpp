// What the driver reads from the work directory between phases.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "driver/clone_depths.h"
#include "driver/dir_records.h"
#include "driver/final_dir_move.h"
#include "object/clone_origin.h"
#include "oplist/clone_lists.h"
#include "record/record_format.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

class WorkLists : public testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/unit-driver-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    settings = {};
    settings.shareDir = dir;
  }
  void TearDown() override {
    closeTraceLog();
    std::filesystem::remove_all(settings.shareDir);
    settings = {};
  }
  void put(const std::string &name, const std::string &text) { std::ofstream(workPath(name)) << text; }
};

TEST_F(WorkLists, CloneDepthsInTheirOrder) {
  for (const char *name : {"clone.del.0", "clone.del.1001", "clone.del.7", "clone.del.7.orig",
                           "clone.del.", "clone.0", "clone.1000", "clone.x", "clone.-1", "clone.3"})
    put(name, "");
  std::vector<int> depths;
  EXPECT_EQ(listedCloneDepths(CloneLists::kDelete, &depths), 0);
  EXPECT_EQ(depths, (std::vector<int>{1001, 7, 0}));
  EXPECT_EQ(listedCloneDepths(CloneLists::kRestore, &depths), 0);
  EXPECT_EQ(depths, (std::vector<int>{0, 3, 1000}));
  put("clone.1001", "");
  testing::internal::CaptureStderr();
  EXPECT_EQ(listedCloneDepths(CloneLists::kRestore, &depths), EINVAL);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("clone.1001"), std::string::npos);
  settings.shareDir += "/gone";
  EXPECT_EQ(listedCloneDepths(CloneLists::kRestore, &depths), ENOENT);
  settings.shareDir.resize(settings.shareDir.size() - 5);
}

TEST_F(WorkLists, ClonesDeeperThanAnyListGoWithTheDeepestAndAreNotMade) {
  CloneAttr attr;
  attr.bytes[14] = 4;  // depth 1024
  EXPECT_EQ(listClone("/m/old", true, attr), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(listClone("/m/new", false, attr), EINVAL);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("/m/new"), std::string::npos);
  std::vector<int> depths;
  EXPECT_EQ(listedCloneDepths(CloneLists::kDelete, &depths), 0);
  EXPECT_EQ(depths, std::vector<int>{1001});
  EXPECT_EQ(listedCloneDepths(CloneLists::kRestore, &depths), 0);
  EXPECT_TRUE(depths.empty());
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
  const std::string a = formatListRecord(0, 300, "/m/a\nb", formatOpString(kOpCrDir));
  const std::string again = formatListRecord(9, 300, "/m/a\nb", formatOpString(kOpCrDir));
  const std::string other_path = formatListRecord(9, 300, "/m/c", formatOpString(kOpCrDir));
  const std::string other_ino = formatListRecord(1, 301, "/m/c", formatOpString(kOpCrDir));
  put(kDirNew, a + other_path + again + other_ino + a);
  const std::string from = workPath(kDirNew), to = workPath("dir.last");
  EXPECT_EQ(takeDirRecords(from, to), 0);
  std::string text;
  ASSERT_TRUE(readWholeFile(to, &text));
  EXPECT_EQ(text, a + other_path + other_ino);
  EXPECT_FALSE(std::filesystem::exists(from));
  put(kDirNew, a + a.substr(0, 20));
  EXPECT_EQ(takeDirRecords(from, to), EIO);
  EXPECT_TRUE(std::filesystem::exists(from));
}

TEST_F(WorkLists, FinalDirMove) {
  EXPECT_EQ(doFinalDirMove(), ENOENT);
  put(kDirMoveList, "");
  EXPECT_EQ(doFinalDirMove(), 0);
  put(kDirMoveList, "300\nxyz\n");
  EXPECT_EQ(doFinalDirMove(), EIO);
}

}  // namespace
