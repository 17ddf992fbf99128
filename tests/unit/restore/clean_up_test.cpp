// The work directory is removed, but never an object of the fileset.
#include "restore/clean_up.h"

#include <cerrno>

#include "object/places.h"
#include "unit/support/real_fileset.h"

namespace {

class CleanUp : public RealFileset {
 protected:
  void SetUp() override {
    RealFileset::SetUp();
    tree.dir("RestoreTemp47/DelDir_300");
    for (const char *name : {"opList", "checkpoint/checkpoint.1.h.2", "DelDir_300/1"})
      tree.file("RestoreTemp47/" + std::string(name), "x");
  }
  // Moves an object of the fileset aside like the walk; returns its temporary location.
  std::string setAside(const std::string &name, const std::string &destination = "") {
    const uint64_t ino = tree.inode(name);
    EXPECT_TRUE(makeWorkDirectory(bucketDir(ino)));
    if (!destination.empty()) {
      EXPECT_TRUE(fetchFile(active(destination), ino));
    }
    std::filesystem::rename(active(name), tempLocation(ino));
    return tempLocation(ino);
  }
  int cleanUp(bool force) {
    testing::internal::CaptureStderr();
    const Result result = cleanup(settings.shareDir, force);
    said_ = testing::internal::GetCapturedStderr();
    return result.rc;
  }
  void expectSaid(const std::string &text) {
    EXPECT_NE(said_.find(text), std::string::npos) << text << "\n" << said_;
  }
  std::string said_;
};

TEST_F(CleanUp, ALinkOfTheFilesetIsAnUnfinishedMoveToo) {
  tree.symlink("anywhere", "link");
  tree.file("file");
  for (const char *name : {"link", "file"}) {
    const std::string aside = setAside(name, name);
    EXPECT_EQ(cleanUp(false), -1);
    expectSaid("cleanup: path " + aside);
    expectSaid("rc -1, code 1");
    std::filesystem::rename(aside, active(name));
  }
  EXPECT_EQ(cleanUp(false), 0);
}

TEST_F(CleanUp, ForcePutsBackInAnyOrder) {
  tree.file("child");
  setAside("child", "parent2/child2");
  tree.dir("parent");
  tree.file("parent/inside");
  setAside("parent", "parent2");
  EXPECT_EQ(cleanUp(true), 0);
  EXPECT_EQ(said_, "");
  EXPECT_FALSE(exists(settings.shareDir));
  EXPECT_TRUE(tree.exists("parent2/child2") && tree.exists("parent2/inside"));
}

TEST_F(CleanUp, ForceKeepsWhatHasNoFreePlace) {
  tree.file("taken", "other");
  for (const char *name : {"a", "b", "c"}) tree.file(name, name);
  const std::string taken = setAside("a", "taken"), unknown = setAside("b");
  setAside("c", "free");
  EXPECT_EQ(cleanUp(true), ENOTEMPTY);
  expectSaid(taken + " belongs at " + active("taken") + " (File exists)");
  expectSaid(unknown + " belongs at ?");
  expectSaid("it holds 2 objects of the fileset");
  EXPECT_TRUE(exists(taken) && exists(unknown));
  EXPECT_EQ(tree.read("free") + tree.read("taken"), "cother");
}

TEST_F(CleanUp, ForceRemovesClonesThatWaitForTheirDeletion) {
  tree.file("clone");
  const uint64_t ino = tree.inode("clone");
  ASSERT_TRUE(makeWorkDirectory(bucketDir(ino)));
  std::filesystem::rename(active("clone"), cloneDeleteLocation(ino));
  EXPECT_EQ(cleanUp(false), -1);
  EXPECT_TRUE(exists(cloneDeleteLocation(ino)));
  EXPECT_EQ(cleanUp(true), 0);
  EXPECT_FALSE(exists(settings.shareDir));
}

TEST_F(CleanUp, NestedFilesetsAreNotEntered) {
  const std::string nested = btrfs.createSubvolume("home/RestoreTemp47/nested");
  tree.file("RestoreTemp47/nested/data", "keep");
  EXPECT_NE(cleanUp(true), 0);
  EXPECT_TRUE(exists(nested + "/data"));
}

}  // namespace
