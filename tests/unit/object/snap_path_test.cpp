#include "object/snap_path.h"

#include <cerrno>

#include "object/path_files.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/work_dir.h"
#include "scan/diff_table.h"
#include "unit/support/fake_kest.h"

namespace {

class SnapPath : public FakeFileset {
 protected:
  void SetUp() override {
    FakeFileset::SetUp();
    settings.phase = kPhaseMain;
  }
  void TearDown() override {
    freeDiffTable();
    FakeFileset::TearDown();
  }
  std::string location(uint64_t ino, const std::string &below = "") {
    return workPath(tempLocation(ino)) + below;
  }
  std::string real(const std::string &path) {
    std::string result;
    return getRealPath(path, &result) == 0 ? result : "failed";
  }
  std::string result_;
  uint64_t ino_ = 0;
  bool absent_ = false;
};

TEST_F(SnapPath, TemporaryLocationStandsForItsDestination) {
  ASSERT_EQ(fetchFile(active("old"), 1041), 0);
  ASSERT_EQ(fetchFile(active("x"), 1041), 0);  // a later decision replaces the earlier one
  makeFile(snap("x"));
  unlink(snap("x").c_str());
  makeDir(snap("x/a"));
  makeFile(snap("x/a/b"));
  fakeKest.inoOf[snap("x/a/b")] = 777;
  EXPECT_EQ(real(location(1041, "/a/b")), active("x/a/b"));
  ASSERT_EQ(getSnapPath(location(1041, "/a/b"), true, &result_, &ino_), 0);
  EXPECT_EQ(result_, handles.snapRootPath + "//x/a/b");
  EXPECT_EQ(ino_, 777u);
  ASSERT_EQ(getSnapPath(location(1041), true, &result_, &ino_), 0);
  EXPECT_EQ(ino_, 1041u);
}

TEST_F(SnapPath, DestinationsInsideOtherLocationsAreFollowedToTheEnd) {
  ASSERT_EQ(fetchFile(active("out_er\nx"), 11), 0);
  ASSERT_EQ(fetchFile(location(11, "/mid"), 12), 0);
  ASSERT_EQ(fetchFile(location(12, "/in"), 13), 0);
  EXPECT_EQ(real(location(13, "/f")), active("out_er\nx/mid/in/f"));
  ASSERT_EQ(fetchFile(location(13, "/loop"), 11), 0);
  EXPECT_EQ(real(location(13, "/f")), "failed");  // and ends
}

TEST_F(SnapPath, OnlyPathsBelowTheWorkDirectoryLieInIt) {
  EXPECT_TRUE(inWorkDir(settings.shareDir + "/MOVE_1/_1"));
  EXPECT_FALSE(inWorkDir(settings.shareDir));
  EXPECT_FALSE(inWorkDir(settings.shareDir + "11/MOVE_1/_1"));
  EXPECT_FALSE(inWorkDir(active("u") + settings.shareDir + "/MOVE_1/_1"));
  EXPECT_EQ(real(settings.shareDir + "11/MOVE_1/_1"), settings.shareDir + "11/MOVE_1/_1");
  // Names of users look like the program's own.
  ASSERT_EQ(fetchFile(active("x"), 1041), 0);
  EXPECT_EQ(real(location(1041, "/MOVE_3/_17")), active("x/MOVE_3/_17"));
}

TEST_F(SnapPath, MissingDestinationFailsAndIsNotAbsence) {
  EXPECT_EQ(getSnapPath(location(5), true, &result_, &ino_, &absent_), -1);
  EXPECT_FALSE(absent_);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_NE(traces().find("code 21, err 2\n"), std::string::npos);
  EXPECT_EQ(real(location(5)), "failed");
  EXPECT_EQ(getSnapPath(active("new"), true, &result_, &ino_, &absent_), -1);
  EXPECT_TRUE(absent_);
}

TEST_F(SnapPath, WhileTheWalksRunANewNameResolvesToTheOldOne) {
  ASSERT_TRUE(allocDiffTable());
  makeFile(active("new"));
  makeFile(snap("old"));
  addItem(inoOf(active("new")), 0, kDiffChanged | kDiffMoved);
  ASSERT_EQ(fetchFile(active("old"), inoOf(active("new"))), 0);
  settings.phase = kPhaseMaster;
  EXPECT_EQ(real(active("new")), active("old"));
  ASSERT_EQ(getSnapPath(active("new"), true, &result_, &ino_), 0);
  EXPECT_EQ(ino_, inoOf(snap("old")));
  settings.phase = kPhaseMain;
  EXPECT_EQ(real(active("new")), active("new"));
}

}  // namespace
