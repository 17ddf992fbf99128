#include "object/move_file.h"

#include <cerrno>
#include <filesystem>

#include "object/object_stat.h"
#include "object/path_files.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/work_dir.h"
#include "unit/support/fake_kest.h"

namespace {

// The snapshot holds none of the objects, so that moves back restore no attributes.
class MoveFile : public FakeFileset {
 protected:
  void SetUp() override {
    FakeFileset::SetUp();
    makeFile(active("f"), "text");
    settings.pass = 1;
    location_ = workPath(tempLocation(1041));
  }
  int back(int32_t phase) { return moveFile(location_, 1041, phase, nullptr, false); }
  std::string location_;
};

TEST_F(MoveFile, AwayMakesTheBucketAndNamesTheNewPlace) {
  std::string moved;
  ASSERT_EQ(moveFile(active("f"), 1041, kPhaseMain, &moved, false), 0);
  EXPECT_EQ(moved, settings.shareDir + "/MOVE_17/_1041");
  EXPECT_EQ(read(moved), "text");
  struct stat st;
  ASSERT_EQ(stat(workPath(bucketDir(1041)).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 01000, 01000u);

  makeFile(active("g"));
  ASSERT_EQ(moveFile(active("g"), 1024, kPhaseMain, &moved, true), 0);
  EXPECT_EQ(moved, settings.shareDir + "/MOVE_0/_1024.delclone");
  // A place that is taken is never overwritten.
  makeFile(active("h"), "other");
  EXPECT_NE(moveFile(active("h"), 1041, kPhaseMain, nullptr, false), 0);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(read(location_), "text");
}

TEST_F(MoveFile, SourceThatIsGoneOrGoesIsDone) {
  std::string moved = "unset";
  EXPECT_EQ(moveFile(active("none"), 1041, kPhaseMain, &moved, false), 0);
  EXPECT_EQ(moved, "");
  const std::string source = active("f");
  fakeKest.fault = [source](const std::string &call, const std::string &) {
    if (call == "rename") unlink(source.c_str());
    return 0;
  };
  EXPECT_EQ(moveFile(source, 1041, kPhaseMain, &moved, false), 0);
  EXPECT_EQ(moved, "");
}

TEST_F(MoveFile, FlagsAreClearedOnEitherWay) {
  fakeKest.immutable = {active("f")};
  ASSERT_EQ(moveFile(active("f"), 1041, kPhaseMain, nullptr, false), 0);
  makeDir(active("d"));
  ASSERT_EQ(fetchFile(active("d/f"), 1041), 0);
  fakeKest.immutable = {location_, active("d")};
  ASSERT_EQ(back(kPhaseMoveBack), 0);
  EXPECT_EQ(read(active("d/f")), "text");
}

TEST_F(MoveFile, TakenDestinationIsPendingOnceThenAFailure) {
  ASSERT_EQ(moveFile(active("f"), 1041, kPhaseMain, nullptr, false), 0);
  makeFile(active("g"), "stays");
  ASSERT_EQ(fetchFile(active("g"), 1041), 0);
  ASSERT_EQ(back(kPhaseMoveBack), 0);
  const std::string pending = read(workPath(kRegPendingMvList));
  EXPECT_NE(pending.find(location_ + ":0!;9!4,0,0,0,0\n"), std::string::npos) << pending;
  EXPECT_NE(back(kPhasePending), 0);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_NE(traces().find("code 7, error 17\n"), std::string::npos);
  EXPECT_EQ(read(active("g")), "stays");
}

TEST_F(MoveFile, MissingDestinationFileFails) {
  makeDir(workPath(bucketDir(1041)));
  makeFile(location_);
  EXPECT_NE(back(kPhaseMoveBack), 0);
  EXPECT_NE(traces().find("code 4, error 2\n"), std::string::npos);
  makeFile(workPath(destinationFile(1041)));
  EXPECT_NE(back(kPhaseMoveBack), 0);
  EXPECT_NE(traces().find("code 5, error "), std::string::npos);
}

TEST_F(MoveFile, DirectoryLeavesALinkAlsoWhenTheMoveIsRepeated) {
  makeDir(active("d"));
  fakeKest.inoOf[active("home\nx")] = 1041;
  ASSERT_EQ(moveFile(active("d"), 1041, kPhaseMain, nullptr, false), 0);
  ASSERT_EQ(fetchFile(active("home\nx"), 1041), 0);
  makeDir(snap("elsewhere"));  // known to the snapshot, with no attributes to restore at this path
  fakeKest.inoOf[snap("elsewhere")] = 1041;
  fakeKest.fault = [](const std::string &call, const std::string &) {
    return call == "symlink" ? EIO : 0;
  };
  EXPECT_NE(back(kPhaseDirs), 0);  // the worker is lost before its link
  EXPECT_EQ(errno, EIO);
  fakeKest.fault = nullptr;
  std::string target;
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(back(kPhaseDirs), 0);
    ASSERT_EQ(readLinkTarget(location_, &target), 0);
    EXPECT_EQ(target, active("home\nx"));
  }
  EXPECT_EQ(fakeKest.count("rename"), 2u + 1u);  // away (bucket missing first), and home once
}

}  // namespace
