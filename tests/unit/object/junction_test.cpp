#include "object/junction.h"

#include <cerrno>

#include "unit/support/fake_kest.h"

namespace {

class Junction : public FakeFileset {};

TEST_F(Junction, FlagsOfAnEntryDecide) {
  kest_direntx64_t entry{};
  for (const auto &[flags, kind] : std::map<uint32_t, int>{{0, 0}, {1, 1}, {2, 2}, {3, 1}, {4, 0}}) {
    entry.d_flags = flags;
    EXPECT_EQ(checkJunction("/fs/a", &entry), kind) << flags;
  }
}

TEST_F(Junction, EntryIsSearchedInItsParent) {
  makeDir(active("d/junction"));
  makeDir(active("d/plain"));
  EXPECT_EQ(checkJunction(active("d/junction"), nullptr), 1);
  EXPECT_EQ(checkJunction(active("d/plain"), nullptr), 0);
  EXPECT_EQ(checkJunction(active("d/missing"), nullptr), 2);
  EXPECT_EQ(checkJunction(active("none/x"), nullptr), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(Junction, CommandThatWouldBeCutOffIsNotRun) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(unlinkJunction("/fs/" + std::string(2040, 'x')), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("is not run"), std::string::npos);
}

}  // namespace
