// A file system or quota that new files have filled: new files make room for the restore, and nothing
// else is touched before.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "scenario/restore_fixture.h"
#include "support/descriptor.h"

using namespace scenario;
using testsupport::compare;
using testsupport::Descriptor;
using testsupport::fingerprint;
using testsupport::joined;
using testsupport::runCommand;

namespace {

const char kNoSpace[] = "There is not enough free inode or disk space";
const char kRoomMade[] = " files that the snapshot does not have, ";

class Room : public RestoreFixture {
 protected:
  static void SetUpTestSuite() { makeFileSystem(192ull << 20); }

  void SetUp() override {
    RestoreFixture::SetUp();
    tree().dirs("kept/dir");
    for (int i = 0; i < 100; ++i) tree().big("kept/f" + std::to_string(i), 5000, 7);
    takeSnapshot();
    for (int i = 0; i < 100; i += 2) tree().remove("kept/f" + std::to_string(i));
    for (int i = 1; i < 100; i += 2) tree().append("kept/f" + std::to_string(i), "more");
    tree().rename("kept/dir", "moved");
    tree().dirs("new/deep");
    tree().big("new/smaller", 1 << 20, 9);
    tree().big("new/linked", 2 << 20, 9);
    tree().link("new/linked", "new/deep/linked");
  }

  // Fills all space with one file, then the metadata.
  static void fill(const std::string &path) {
    const Descriptor fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    off_t at = 0;
    for (off_t piece = 16 << 20; piece >= 4096;)
      posix_fallocate(fd.get(), at, piece) == 0 ? at += piece : piece /= 2;
  }
  static void fillMetadata(const std::string &dir) {
    runCommand("mkdir -p " + dir);
    const std::string value(3500, 'x');
    for (int i = 0, failed = 0; failed < 20; ++i) {
      const std::string path = dir + "/" + std::to_string(i);
      const Descriptor fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
      if (fd.valid() && fsetxattr(fd.get(), "user.x", value.data(), value.size(), 0) == 0) continue;
      ++failed;
      sync();
    }
  }

  void expectRoomMade(const std::string &told) {
    const std::string snapshot = fs().path(snapshotName());
    const RunResult result = restore();
    EXPECT_EQ(result.exitStatus, 0) << result.describe();
    EXPECT_NE(result.err.find(told), std::string::npos) << result.err;
    EXPECT_EQ(joined(compare(fingerprint(snapshot), fingerprint(root()))), "") << result.describe();
  }
};

TEST_F(Room, TheLargestNewFileGoesFirst) {
  fill(root() + "/new/deep/runaway");
  const auto bytes = fingerprint(root()).objects["new/deep/runaway"].size;
  fs().commit();
  expectRoomMade(": 1" + std::string(kRoomMade) + std::to_string(bytes) + " bytes,");
}

TEST_F(Room, SmallFilesThatFilledTheMetadata) {
  fill(root() + "/new/deep/runaway");
  fillMetadata(root() + "/new/many");
  expectRoomMade(kRoomMade);
}

TEST_F(Room, UnderAQuota) {
  runCommand("btrfs quota enable " + fs().mountPoint() + " && btrfs quota rescan -w " +
             fs().mountPoint() + " && btrfs qgroup limit 12M " + root());
  fill(root() + "/new/deep/runaway");
  fs().commit();
  for (int i = 0; i < 1000 && mkdir((root() + "/new/" + std::to_string(i)).c_str(), 0700) == 0; ++i)
    fs().commit();
  // A mount in the way is found before a file is removed.
  const std::string point = root() + "/new/deep";
  ASSERT_EQ(mount("none", point.c_str(), "tmpfs", 0, nullptr), 0);
  const RunResult refused = restore();
  ASSERT_EQ(umount(point.c_str()), 0);
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_NE(refused.err.find("mounted on " + point), std::string::npos) << refused.err;
  EXPECT_TRUE(tree().exists("new/deep/runaway") && tree().exists("new/smaller"));
  expectRoomMade(kRoomMade);
  runCommand("btrfs quota disable " + fs().mountPoint());
}

TEST_F(Room, NoneIsToldWhereOthersHaveFilledIt) {
  const std::string others = fs().path("others");
  runCommand("mkdir " + others);
  tree().removeTree("new");
  fill(others + "/whole");
  fillMetadata(others + "/many");
  fill(others + "/rest");
  TreePrint before = fingerprint(root());
  const RunResult result = restore();
  EXPECT_EQ(result.exitStatus, 1) << result.describe();
  EXPECT_NE(result.err.find(kNoSpace), std::string::npos) << result.err;
  EXPECT_EQ(result.err.find(kRoomMade), std::string::npos) << result.err;
  TreePrint after = fingerprint(root());
  before.objects[""] = after.objects[""];  // ignore its times
  EXPECT_EQ(joined(compare(before, after)), "") << result.describe();
  runCommand("rm -r " + others);
  fs().commit();
  expectRestored();
}

}  // namespace
