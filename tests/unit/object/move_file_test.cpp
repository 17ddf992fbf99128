#include "object/move_file.h"

#include <cerrno>

#include "object/places.h"
#include "unit/support/real_fileset.h"

namespace {

// The snapshot has none of the objects, so moves home restore no attributes.
class MoveFile : public RealFileset {
 protected:
  void SetUp() override {
    RealFileset::SetUp();
    tree.file("f", "text");
    ino_ = tree.inode("f");
    location_ = tempLocation(ino_);
  }
  Result away() { return moveFile(active("f"), ino_, kPhaseMain, &moved_, false); }
  Result back(int32_t phase) { return moveFile(location_, ino_, phase, nullptr, false); }
  uint64_t ino_ = 0;
  std::string location_, moved_ = "unset";
};

TEST_F(MoveFile, TakenDestinationIsPendingOnceThenAFailure) {
  ASSERT_TRUE(away());
  EXPECT_EQ(moved_, location_);
  EXPECT_EQ(back(kPhaseMoveBack).err, ENOENT) << "nothing says where to";
  tree.file("g", "stays");
  ASSERT_TRUE(fetchFile(active("g"), ino_));
  ASSERT_TRUE(back(kPhaseMoveBack));
  const std::string pending = read(workPath(kRegPendingMvList));
  EXPECT_NE(pending.find(location_ + ":0!;9!4,0,0,0,0\n"), std::string::npos) << pending;
  EXPECT_EQ(back(kPhasePending).err, EEXIST);
  EXPECT_EQ(tree.read("g"), "stays");
  EXPECT_EQ(read(location_), "text");
}

TEST_F(MoveFile, SourceThatIsGoneOrGoesIsDone) {
  refusal = [this](const std::string &call) {
    if (call == "kest_rename_noreplace" && tree.exists("f")) tree.remove("f");
    return 0;
  };
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(away());
    EXPECT_EQ(moved_, "");
  }
}

TEST_F(MoveFile, FlagsAreClearedOnEitherWay) {
  tree.dir("d");
  tree.rename("f", "d/f");
  for (const char *name : {"d/f", "d"}) tree.immutable(name);
  ASSERT_TRUE(moveFile(active("d/f"), ino_, kPhaseMain, nullptr, false));
  ASSERT_TRUE(fetchFile(active("d/f"), ino_));
  for (const std::string &path : {location_, active("d")})
    tree.immutable(path.substr(tree.root().size() + 1));
  ASSERT_TRUE(back(kPhaseMoveBack));
  EXPECT_EQ(tree.read("d/f"), "text");
}

TEST_F(MoveFile, DirectoryLeavesALinkAlsoWhenTheMoveIsRepeated) {
  tree.dir("d");
  takeSnapshot();
  const uint64_t ino = tree.inode("d");
  ASSERT_TRUE(moveFile(active("d"), ino, kPhaseMain, nullptr, false));
  ASSERT_TRUE(fetchFile(active("d"), ino));
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(moveFile(tempLocation(ino), ino, kPhaseDirs, nullptr, false));
    EXPECT_EQ(std::filesystem::read_symlink(tempLocation(ino)), active("d"));
  }
  EXPECT_EQ(tree.inode("d"), ino);
}

}  // namespace
