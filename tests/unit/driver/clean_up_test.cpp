// The work directory goes, what belongs to the fileset never does.
#include "driver/clean_up.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "object/path_files.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_access.h"
#include "run/work_dir.h"
#include "support/loop_btrfs.h"

namespace {

namespace fs = std::filesystem;

class CleanUp : public testing::Test {
 protected:
  void SetUp() override {
    root = btrfs.createSubvolume("home");
    handles.activeFsP = kest_get_fset_snaphandle_by_name(btrfs.mountPoint().c_str(), "home", nullptr);
    ASSERT_NE(handles.activeFsP, nullptr) << kest_error_text();
    btrfs.snapshot("home", "snap");
    handles.oldFsP = kest_get_fset_snaphandle_by_name(btrfs.mountPoint().c_str(), "home", "snap");
    ASSERT_NE(handles.oldFsP, nullptr) << kest_error_text();
    handles.rootPath = root;
    handles.snapRootPath = btrfs.path("snap");
    settings = {};
    settings.shareDir = root + "/RestoreTemp47";
    fs::create_directories(settings.shareDir + "/checkpoint");
    fs::create_directories(settings.shareDir + "/DelDir_300");
    for (const char *name : {"opList", "checkpoint/checkpoint.1.h.2", "DelDir_300/1", "fatal.error"})
      std::ofstream(workPath(name)) << "x";
  }
  void TearDown() override {
    closeTraceLog();
    closeWorkDirectory();
    if (handles.oldFsP) kest_free_fssnaphandle(handles.oldFsP);
    if (handles.activeFsP) kest_free_fssnaphandle(handles.activeFsP);
    handles = {};
    settings = {};
  }
  // A file or directory of the fileset, moved aside as the walk does it; its temporary location.
  std::string setAside(const std::string &name, bool directory, const std::string &destination) {
    const std::string path = root + "/" + name;
    if (directory) {
      fs::create_directory(path);
      std::ofstream(path + "/inside") << name;
    } else {
      std::ofstream(path) << name;
    }
    struct stat st;
    EXPECT_EQ(lstat(path.c_str(), &st), 0);
    if (!destination.empty()) {
      EXPECT_EQ(fetchFile(destination, st.st_ino), 0);
    } else {
      EXPECT_EQ(makeWorkDirectory(bucketDir(st.st_ino)), 0);
    }
    const std::string aside = tempLocation(st.st_ino);
    fs::rename(path, aside);
    return aside;
  }
  std::string run(bool force, int *rc) {
    testing::internal::CaptureStderr();
    *rc = cleanup(settings.shareDir, force);
    return testing::internal::GetCapturedStderr();
  }

  testsupport::LoopBtrfs btrfs;
  std::string root;
};

TEST_F(CleanUp, LinksGoAndTheirTargetsStay) {
  fs::create_directory(root + "/moved-back");
  std::ofstream(root + "/moved-back/data") << "keep";
  ASSERT_EQ(makeWorkDirectory(bucketDir(5)), 0);
  fs::create_symlink(root + "/moved-back", tempLocation(5));
  std::ofstream(destinationFile(5)) << root + "/moved-back";
  int rc = -1;
  EXPECT_EQ(run(false, &rc), "");
  EXPECT_EQ(rc, 0);
  EXPECT_FALSE(fs::exists(settings.shareDir));
  EXPECT_TRUE(fs::exists(root + "/moved-back/data"));
}

TEST_F(CleanUp, AnUnfinishedMoveStopsIt) {
  const std::string aside = setAside("file", false, root + "/file");
  int rc = 0;
  const std::string text = run(false, &rc);
  EXPECT_EQ(rc, -1);
  EXPECT_NE(text.find("cleanup: path " + aside), std::string::npos) << text;
  EXPECT_NE(text.find("rc -1, code 1"), std::string::npos) << text;
  EXPECT_TRUE(fs::exists(aside));
}

TEST_F(CleanUp, ALinkOfTheFilesetIsAnUnfinishedMoveToo) {
  fs::create_symlink("anywhere", root + "/link");
  struct stat st;
  ASSERT_EQ(lstat((root + "/link").c_str(), &st), 0);
  ASSERT_EQ(makeWorkDirectory(bucketDir(st.st_ino)), 0);
  fs::rename(root + "/link", tempLocation(st.st_ino));
  int rc = 0;
  run(false, &rc);
  EXPECT_EQ(rc, -1);
  EXPECT_TRUE(fs::is_symlink(tempLocation(st.st_ino)));
}

TEST_F(CleanUp, ForcePutsBackInAnyOrder) {
  setAside("child", false, root + "/parent2/child2");
  setAside("parent", true, root + "/parent2");
  int rc = -1;
  EXPECT_EQ(run(true, &rc), "");
  EXPECT_EQ(rc, 0);
  EXPECT_FALSE(fs::exists(settings.shareDir));
  EXPECT_TRUE(fs::exists(root + "/parent2/child2"));
  EXPECT_TRUE(fs::exists(root + "/parent2/inside"));
}

TEST_F(CleanUp, ForceKeepsWhatHasNoFreePlace) {
  std::ofstream(root + "/taken") << "other";
  const std::string taken = setAside("a", true, root + "/taken");
  const std::string unknown = setAside("b", false, "");
  setAside("c", false, root + "/free");
  int rc = 0;
  const std::string text = run(true, &rc);
  EXPECT_EQ(rc, ENOTEMPTY);
  EXPECT_NE(text.find(taken + " belongs at " + root + "/taken (File exists)"), std::string::npos)
      << text;
  EXPECT_NE(text.find(unknown + " belongs at ?"), std::string::npos) << text;
  EXPECT_NE(text.find("it holds 2 objects of the fileset"), std::string::npos) << text;
  EXPECT_TRUE(fs::exists(taken + "/inside"));
  EXPECT_TRUE(fs::exists(unknown));
  EXPECT_TRUE(fs::exists(root + "/free"));
  EXPECT_EQ(fs::file_size(root + "/taken"), 5u);
}

TEST_F(CleanUp, ForceRemovesClonesThatWaitForTheirDeletion) {
  std::ofstream(root + "/parent") << "data";
  ASSERT_EQ(kest_clone_snap((root + "/parent").c_str(), nullptr), 0);
  struct stat st;
  ASSERT_EQ(lstat((root + "/parent").c_str(), &st), 0);
  ASSERT_EQ(makeWorkDirectory(bucketDir(st.st_ino)), 0);
  const std::string waiting = cloneDeleteLocation(st.st_ino);
  ASSERT_EQ(kest_rename_noreplace(handles.activeFsP, (root + "/parent").c_str(), waiting.c_str(), 0),
            0);
  int rc = 0;
  run(false, &rc);
  EXPECT_EQ(rc, -1);
  EXPECT_TRUE(fs::exists(waiting));
  EXPECT_EQ(run(true, &rc), "");
  EXPECT_EQ(rc, 0);
  EXPECT_FALSE(fs::exists(settings.shareDir));
}

TEST_F(CleanUp, NestedFilesetsAreNotEntered) {
  const std::string nested = btrfs.createSubvolume("home/RestoreTemp47/nested");
  std::ofstream(nested + "/data") << "keep";
  int rc = 0;
  run(true, &rc);
  EXPECT_NE(rc, 0);
  EXPECT_TRUE(fs::exists(nested + "/data"));
}

TEST_F(CleanUp, NamesForTheShellAreQuoted) {
  const std::string odd = root + "/Restore'Temp $(touch x) 1";
  fs::rename(settings.shareDir, odd);
  settings.shareDir = odd;
  int rc = -1;
  EXPECT_EQ(run(false, &rc), "");
  EXPECT_EQ(rc, 0);
  EXPECT_FALSE(fs::exists(odd));
}

}  // namespace
