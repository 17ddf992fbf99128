// Operations on names, with errors that no kernel gives on request.
#include <cerrno>
#include <filesystem>

#include "record/op_code.h"
#include "record/record_format.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "unit/support/fake_kest.h"
#include "worker/delete_file.h"
#include "worker/dir_ops.h"
#include "worker/link_file.h"

namespace {

class Operations : public FakeFileset {
 protected:
  void SetUp() override {
    FakeFileset::SetUp();
    settings.phase = kPhaseMain;
    settings.topDir = false;
  }
  void failCall(const std::string &name, int err, int times) {
    fakeKest.fault = [=, left = times](const std::string &call, const std::string &) mutable {
      return call == name && left-- > 0 ? err : 0;
    };
  }
  static bool exists(const std::string &path) { return std::filesystem::exists(path); }
};

TEST_F(Operations, DeleteWaitsForABusyFileAndTakesAMissingOneAsDone) {
  makeFile(active("f"));
  failCall("unlink", EBUSY, 3);
  EXPECT_EQ(deleteFile(active("f"), 300), 0);
  EXPECT_FALSE(exists(active("f")));
  EXPECT_NE(traces().find("deleteFile: unlink wait 3\n"), std::string::npos);
  EXPECT_EQ(deleteFile(active("f"), 300), 0);
  makeFile(active("g"));
  failCall("unlink", EIO, 1);
  EXPECT_NE(deleteFile(active("g"), 300), 0);
  EXPECT_EQ(errno, EIO);
}

TEST_F(Operations, CloneIsListedAndSetAsideInTheMainPhaseAndGoesInItsOwn) {
  const std::string aside = settings.shareDir + "/MOVE_300/_300.delclone";
  makeFile(active("f"));
  makeFile(active("g"));
  std::vector<uint8_t> clone(16);
  clone[7] = 17;
  clone[15] = 3;
  fakeKest.attributes["kest.CLONE"] = clone;
  // Lost between the two steps: the record is there, and the repetition still finds the clone.
  failCall("rename", EIO, 1);
  EXPECT_NE(deleteFile(active("f"), 300), 0);
  EXPECT_TRUE(exists(active("f")));
  EXPECT_EQ(deleteFile(active("f"), 300), 0);
  EXPECT_TRUE(exists(aside));
  // Another name of the same clone finds the place taken: the name alone goes.
  EXPECT_EQ(deleteFile(active("g"), 300), 0);
  EXPECT_FALSE(exists(active("g")));
  const std::string record = formatListRecord(0, 17, aside, formatOpString(kOpDeleteFile));
  EXPECT_EQ(read(settings.shareDir + "/clone.del.3"), record + record + record);
  settings.phase = kPhaseCloneDelete;
  EXPECT_EQ(deleteFile(aside, 17), 0);
  EXPECT_FALSE(exists(aside));
}

TEST_F(Operations, DirectoryGoesOnlyWhenItIsTheOneMeantAndEmpty) {
  makeDir(active("d/full"));
  const uint64_t ino = inoOf(active("d"));
  EXPECT_EQ(delDir(active("none"), ino), 0);
  EXPECT_EQ(delDir(active("d"), ino + 1000000), 0);
  EXPECT_TRUE(exists(active("d")));
  makeFile(active("d/full/f"));
  EXPECT_NE(delDir(active("d"), ino), 0);
  EXPECT_EQ(errno, ENOTEMPTY);
  std::filesystem::remove_all(active("d/full"));
  fakeKest.immutable = {active("d")};
  EXPECT_EQ(delDir(active("d"), ino), 0);
  EXPECT_FALSE(exists(active("d")));
}

TEST_F(Operations, DirectoryOfThingsLeftAloneStaysWithAMessage) {
  makeDir(active("d/sub/.snapshots"));
  testing::internal::CaptureStderr();
  EXPECT_EQ(delDir(active("d"), inoOf(active("d"))), 0);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(active("d") + " stays"), std::string::npos);
  makeDir(active("d/empty"));  // appeared since: not the program's to overlook
  EXPECT_NE(delDir(active("d"), inoOf(active("d"))), 0);
  EXPECT_EQ(errno, ENOTEMPTY);
}

TEST_F(Operations, RefusedRemovalWithoutAJunctionIsAFailure) {
  makeDir(active("d"));
  failCall("rmdir", EPERM, 1000);
  EXPECT_NE(delDir(active("d"), inoOf(active("d"))), 0);
  EXPECT_EQ(errno, EPERM);
  EXPECT_NE(traces().find("code 4, error 1\n"), std::string::npos);
}

TEST_F(Operations, LinksFailWhenTheLookupDoes) {
  makeFile(snap("f"));
  failCall("inode_names", EIO, 1);
  EXPECT_NE(linkFile(active("f"), inoOf(snap("f"))), 0);
  EXPECT_EQ(errno, EIO);
  EXPECT_FALSE(exists(active("f")));
}

}  // namespace
