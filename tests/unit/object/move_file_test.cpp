#include "object/move_file.h"

#include <cerrno>

#include "object/path_files.h"
#include "unit/support/real_fileset.h"

namespace {

// The snapshot holds none of the objects, so that moves back restore no attributes.
class MoveFile : public RealFileset {
 protected:
  void SetUp() override {
    RealFileset::SetUp();
    tree.file("f", "text");
    ino_ = tree.inode("f");
    location_ = tempLocation(ino_);
  }
  int away() { return moveFile(active("f"), ino_, kPhaseMain, &moved_, false); }
  int back(int32_t phase) { return moveFile(location_, ino_, phase, nullptr, false); }
  uint64_t ino_ = 0;
  std::string location_, moved_ = "unset";
};

TEST_F(MoveFile, TakenDestinationIsPendingOnceThenAFailure) {
  ASSERT_EQ(away(), 0);
  EXPECT_EQ(moved_, location_);
  EXPECT_NE(back(kPhaseMoveBack), 0) << "nothing says where to";
  EXPECT_EQ(errno, ENOENT);
  tree.file("g", "stays");
  ASSERT_EQ(fetchFile(active("g"), ino_), 0);
  ASSERT_EQ(back(kPhaseMoveBack), 0);
  const std::string pending = read(workPath(kRegPendingMvList));
  EXPECT_NE(pending.find(location_ + ":0!;9!4,0,0,0,0\n"), std::string::npos) << pending;
  EXPECT_NE(back(kPhasePending), 0);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(tree.read("g"), "stays");
  EXPECT_EQ(read(location_), "text");
}

TEST_F(MoveFile, SourceThatIsGoneOrGoesIsDone) {
  refusal = [this](const std::string &call) {
    if (call == "kest_rename_noreplace" && tree.exists("f")) tree.remove("f");
    return 0;
  };
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(away(), 0);
    EXPECT_EQ(moved_, "");
  }
}

TEST_F(MoveFile, FlagsAreClearedOnEitherWay) {
  tree.dir("d");
  tree.rename("f", "d/f");
  for (const char *name : {"d/f", "d"}) tree.immutable(name);
  ASSERT_EQ(moveFile(active("d/f"), ino_, kPhaseMain, nullptr, false), 0);
  ASSERT_EQ(fetchFile(active("d/f"), ino_), 0);
  for (const std::string &path : {location_, active("d")})
    tree.immutable(path.substr(tree.root().size() + 1));
  ASSERT_EQ(back(kPhaseMoveBack), 0);
  EXPECT_EQ(tree.read("d/f"), "text");
}

TEST_F(MoveFile, DirectoryLeavesALinkAlsoWhenTheMoveIsRepeated) {
  tree.dir("d");
  takeSnapshot();
  const uint64_t ino = tree.inode("d");
  ASSERT_EQ(moveFile(active("d"), ino, kPhaseMain, nullptr, false), 0);
  ASSERT_EQ(fetchFile(active("d"), ino), 0);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(moveFile(tempLocation(ino), ino, kPhaseDirs, nullptr, false), 0);
    EXPECT_EQ(std::filesystem::read_symlink(tempLocation(ino)), active("d"));
  }
  EXPECT_EQ(tree.inode("d"), ino);
}

}  // namespace
