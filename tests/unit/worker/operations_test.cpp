// Removals that wait, are refused, or meet something else.
#include <cerrno>

#include "record/record_format.h"
#include "unit/support/real_fileset.h"
#include "worker/delete_file.h"
#include "worker/dir_ops.h"

namespace {

class Operations : public RealFileset {
 protected:
  void SetUp() override {
    RealFileset::SetUp();
    settings.phase = kPhaseMain;
  }
  void refuse(const std::string &name, int err, int times) {
    refusal = [=, left = times](const std::string &call) mutable {
      return call == name && left-- > 0 ? err : 0;
    };
  }
  int removeDir(uint64_t ino) { return delDir(active("d"), ino); }
};

TEST_F(Operations, DeleteWaitsForABusyFileAndTakesAMissingOneAsDone) {
  tree.file("f");
  const uint64_t ino = tree.inode("f");
  refuse("kest_unlink", EIO, 1);
  EXPECT_NE(deleteFile(active("f"), ino), 0);
  EXPECT_EQ(errno, EIO);
  refuse("kest_unlink", EBUSY, 3);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(deleteFile(active("f"), ino), 0);
  EXPECT_FALSE(tree.exists("f"));
}

TEST_F(Operations, DirectoryGoesOnlyWhenItIsTheOneMeantAndEmpty) {
  tree.dirs("d/full");
  tree.file("d/full/f");
  const uint64_t ino = tree.inode("d");
  EXPECT_EQ(removeDir(ino + 1000000), 0);
  EXPECT_TRUE(tree.exists("d"));
  EXPECT_NE(removeDir(ino), 0);
  EXPECT_EQ(errno, ENOTEMPTY);
  tree.remove("d/full/f");
  EXPECT_NE(removeDir(ino), 0) << "not the program's to overlook";
  tree.remove("d/full");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(removeDir(ino), 0);
  EXPECT_FALSE(tree.exists("d"));
}

// Each list is performed by this worker or by an engine of its own; a set has both here in turn.
TEST_F(Operations, FailureOfANestedListIsTheDirectorys) {
  tree.dir("d");
  const uint64_t ino = tree.inode("d");
  settings.topDir = true;
  ASSERT_EQ(makeWorkDirectory(dirSet(ino, false)), 0);
  const std::string bad = formatListRecord(0, ino, active("d/x"), "9,0,0,0,0");
  const std::string list = dirSetList(ino, false, 1).substr(tree.root().size() + 1);
  tree.file(list);
  for (int records : {1, 200}) {
    for (int i = 0; i < records; ++i) tree.append(list, bad);
    EXPECT_NE(removeDir(ino), 0) << records;
    EXPECT_TRUE(tree.exists("d"));
  }
  tree.truncate(list, 0);
  EXPECT_EQ(removeDir(ino), 0);
}

TEST_F(Operations, RefusedRemovalWithoutAJunctionIsAFailure) {
  tree.dir("d");
  refuse("kest_rmdir", EPERM, 1000);
  EXPECT_NE(removeDir(tree.inode("d")), 0);
  EXPECT_EQ(errno, EPERM);
}

}  // namespace
