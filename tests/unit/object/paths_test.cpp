// Paths through the work directory, and one that is too long for a command.
#include <cerrno>
#include <map>

#include "object/junction.h"
#include "object/path_files.h"
#include "object/snap_path.h"
#include "run/run_handles.h"
#include "unit/support/work_area.h"

namespace {

class Paths : public WorkArea {
 protected:
  void SetUp() override {
    WorkArea::SetUp();
    settings.phase = kPhaseMain;
  }
  static std::string real(const std::string &path) {
    std::string result;
    return getRealPath(path, &result) == 0 ? result : "failed";
  }
};

TEST_F(Paths, DestinationsInsideOtherLocationsAreFollowedToTheEnd) {
  ASSERT_EQ(fetchFile("/fs/older", 11), 0);
  ASSERT_EQ(fetchFile("/fs/out_er\nx", 11), 0);  // a later decision replaces the earlier one
  ASSERT_EQ(fetchFile(tempLocation(11) + "/mid", 12), 0);
  ASSERT_EQ(fetchFile(tempLocation(12) + "/in", 13), 0);
  EXPECT_EQ(real(tempLocation(13) + "/f"), "/fs/out_er\nx/mid/in/f");
  ASSERT_EQ(fetchFile(tempLocation(13) + "/loop", 11), 0);
  EXPECT_EQ(real(tempLocation(13) + "/f"), "failed");  // and ends
  EXPECT_EQ(real(tempLocation(14)), "failed");
}

TEST_F(Paths, OnlyPathsBelowTheWorkDirectoryLieInIt) {
  EXPECT_TRUE(inWorkDir(at("MOVE_1/_1")));
  EXPECT_FALSE(inWorkDir(area_));
  EXPECT_FALSE(inWorkDir("/fs/u" + at("MOVE_1/_1")));
  EXPECT_EQ(real(area_ + "11/MOVE_1/_1"), area_ + "11/MOVE_1/_1");
  // Names of users look like the program's own.
  ASSERT_EQ(fetchFile("/fs/x", 1041), 0);
  EXPECT_EQ(real(tempLocation(1041) + "/MOVE_3/_17"), "/fs/x/MOVE_3/_17");
}

TEST_F(Paths, FlagsOfAnEntryMakeItAJunction) {
  for (const auto &[flags, kind] : std::map<uint32_t, int>{{0, 0}, {1, 1}, {2, 2}, {3, 1}, {4, 0}}) {
    kest_direntx64_t entry{};
    entry.d_flags = flags;
    EXPECT_EQ(checkJunction("/fs/a", &entry), kind) << flags;
  }
}

TEST_F(Paths, CommandThatWouldBeCutOffIsNotRun) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(unlinkJunction("/fs/" + std::string(2040, 'x')), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("is not run"), std::string::npos);
}

}  // namespace
