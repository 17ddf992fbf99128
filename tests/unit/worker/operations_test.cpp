// Removals that wait, are refused, or meet another object.
#include <cerrno>

#include "formats/list_record.h"
#include "unit/support/real_fileset.h"
#include "worker/delete_file.h"
#include "worker/dir_ops.h"
#include "worker/file_restore.h"
#include "worker/work_unit.h"

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
  Result removeFile(uint64_t ino) { return deleteFile({ino, active("f"), {kOpDeleteFile}}); }
  Result removeDir(uint64_t ino) {
    return delDir({ino, active("d"), {kOpDelDir}}, [](const std::string &) {
      ADD_FAILURE() << "there is no list";
      return Result{};
    });
  }
};

TEST_F(Operations, DeleteWaitsForABusyFileAndTakesAMissingOneAsDone) {
  tree.file("f");
  const uint64_t ino = tree.inode("f");
  // A clone attribute that cannot be read could be one: the file must not be removed out of order.
  for (const char *call : {"kest_carries_clone", "kest_unlink"}) {
    refuse(call, EIO, 1);
    EXPECT_EQ(removeFile(ino).err, EIO) << call;
    EXPECT_TRUE(tree.exists("f")) << call;
  }
  refuse("kest_unlink", EBUSY, 3);
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(removeFile(ino));
  EXPECT_FALSE(tree.exists("f"));
}

TEST_F(Operations, DirectoryGoesOnlyWhenItIsTheOneMeantAndEmpty) {
  tree.dirs("d/full");
  tree.file("d/full/f");
  const uint64_t ino = tree.inode("d");
  EXPECT_TRUE(removeDir(ino + 1000000));
  EXPECT_TRUE(tree.exists("d"));
  EXPECT_EQ(removeDir(ino).err, ENOTEMPTY);
  tree.remove("d/full/f");
  EXPECT_FALSE(removeDir(ino)) << "a directory inside is never removed along with it";
  tree.remove("d/full");
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(removeDir(ino));
  EXPECT_FALSE(tree.exists("d"));
}

// This worker performs small lists, and an engine the others; a set has both in turn.
TEST_F(Operations, FailureOfANestedListIsTheDirectorys) {
  tree.dir("d");
  const uint64_t ino = tree.inode("d");
  settings.topDir = true;
  settings.deviceP = btrfs.mountPoint();
  settings.nodeSpec = "localhost";
  ASSERT_TRUE(makeWorkDirectory(dirSet(ino, false)));
  const std::string bad = formatListRecord(0, ino, active("d/x"), {9});
  tree.file("batch", std::to_string(ino) + " 0 0 6,0,0,0,0 -- " + active("d") + "\n");
  const std::string list = dirSetList(ino, false, 1).substr(tree.root().size() + 1);
  tree.file(list);
  const struct {
    int records, status, err;  // the exit status is that of the engine's workers
  } cases[] = {{1, 0, EINVAL}, {200, 5, ECANCELED}, {200, 28, ENOSPC}};
  for (const auto &one : cases) {
    tree.truncate(list, 0);
    for (int i = 0; i < one.records; ++i) tree.append(list, bad);
    const std::string worker = "worker" + std::to_string(one.status);
    tree.file(worker, "#!/bin/sh\n[ \"$1\" = TEST ] || exit " + std::to_string(one.status) + "\n",
              0755);
    settings.exe = active(worker);
    EXPECT_EQ(doWorkUnit(active("batch"), 42).err, one.err) << one.records;
    EXPECT_TRUE(tree.exists("d"));
  }
  tree.truncate(list, 0);
  unlink(workPath(kFatalError).c_str());
  EXPECT_TRUE(doWorkUnit(active("batch"), 42));
}

TEST_F(Operations, UsersFileAtTheNameOfADeletedOneIsLeftAsItIs) {
  tree.file("f", "the snapshot's");
  const uint64_t ino = tree.inode("f");
  takeSnapshot();
  tree.remove("f");
  tree.file("f", "a user's");
  tree.chown("f", 1001, 0);
  settings.phase = kPhaseCreate;
  EXPECT_EQ(restoreDelFile({ino, active("f"), {kOpRestoreDelFile, 0, 14}}).err, ESTALE);
  EXPECT_EQ(tree.read("f"), "a user's");
}

TEST_F(Operations, RefusedRemovalWithoutAJunctionIsAFailure) {
  tree.dir("d");
  refuse("kest_rmdir", EPERM, 1000);
  EXPECT_EQ(removeDir(tree.inode("d")).err, EPERM);
}

}  // namespace
