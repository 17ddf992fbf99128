// Paths through the work directory, and one that is too long for a command.
#include <cerrno>

#include "object/junction.h"
#include "object/places.h"
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
    return getRealPath(path, &result) ? result : "failed";
  }
};

TEST_F(Paths, DestinationsInsideOtherLocationsAreFollowedToTheEnd) {
  ASSERT_TRUE(fetchFile("/fs/older", 11));
  ASSERT_TRUE(fetchFile("/fs/out_er\nx", 11));  // a later decision replaces an earlier one
  ASSERT_TRUE(fetchFile(tempLocation(11) + "/mid", 12));
  ASSERT_TRUE(fetchFile(tempLocation(12) + "/in", 13));
  EXPECT_EQ(real(tempLocation(13) + "/f"), "/fs/out_er\nx/mid/in/f");
  ASSERT_TRUE(fetchFile(tempLocation(13) + "/loop", 11));
  EXPECT_EQ(real(tempLocation(13) + "/f"), "failed");  // ends nevertheless
  EXPECT_EQ(real(tempLocation(14)), "failed");
}

TEST_F(Paths, OnlyPathsBelowTheWorkDirectoryLieInIt) {
  EXPECT_TRUE(inWorkDir(at("MOVE_1/_1")));
  EXPECT_FALSE(inWorkDir(area_));
  EXPECT_FALSE(inWorkDir("/fs/u" + at("MOVE_1/_1")));
  EXPECT_EQ(real(area_ + "11/MOVE_1/_1"), area_ + "11/MOVE_1/_1");
  // Users' names can look like the program's own.
  ASSERT_TRUE(fetchFile("/fs/x", 1041));
  EXPECT_EQ(real(tempLocation(1041) + "/MOVE_3/_17"), "/fs/x/MOVE_3/_17");
}

TEST_F(Paths, FlagsOfAnEntryMakeItAJunction) {
  for (const uint32_t flags : {0, 1, 2, 3, 4}) {
    kest_direntx64_t entry{};
    entry.d_flags = flags;
    EXPECT_EQ(isJunction("/fs/a", entry), flags >= 1 && flags <= 3) << flags;
  }
}

TEST_F(Paths, CommandThatWouldBeCutOffIsNotRun) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(unlinkJunction("/fs/" + std::string(2040, 'x'), "/fs").err, ENAMETOOLONG);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("is not run"), std::string::npos);
}

}  // namespace
