// A CephFS directory, returned to a snapshot of it: files, links, attributes, layouts, directories that
// moved, and inodes that the servers have forgotten.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "support/ceph_cluster.h"
#include "support/restore_run.h"
#include "support/tree_builder.h"
#include "support/tree_fingerprint.h"

using namespace testsupport;

namespace {

constexpr char kLayout[] = "stripe_unit=65536 stripe_count=2 object_size=131072 pool=data";
constexpr double kSeconds = 250;

class CephRestore : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { cluster_ = std::make_unique<CephCluster>(); }
  static void TearDownTestSuite() { cluster_.reset(); }

  void SetUp() override {
    fileset_ = "set" + std::to_string(++number_);
    ASSERT_EQ(mkdir(cluster_->path(fileset_).c_str(), 0755), 0);
    tree_ = std::make_unique<TreeBuilder>(cluster_->path(fileset_));
  }
  void TearDown() override { tree_.reset(); }

  RunResult run(const std::string &snapshot) {
    return runRestore(cluster_->mountPoint(), fileset_, snapshot, {"-m", "2"},
                      {.timeoutSeconds = kSeconds});
  }

  void expectRestored(const std::string &snapshot) {
    const TreePrint want = fingerprint(snapshot);
    ASSERT_NE(joined(compare(want, fingerprint(tree_->root()))), "") << "nothing has changed";
    const RunResult result = run("snap");
    EXPECT_EQ(result.exitStatus, 0) << result.describe();
    EXPECT_EQ(result.processesLeft, 0);
    EXPECT_EQ(joined(compare(want, fingerprint(tree_->root()))), "") << result.describe();
    EXPECT_EQ(joined(compare(want, fingerprint(snapshot))), "") << "the snapshot itself changed";
    const RunResult compared =
        runProgram({cluster_->mountPoint(), "-j", fileset_, "-o", "snap"},
                   {.program = "/usr/qtx/kest/bin/fsetcompare", .timeoutSeconds = kSeconds});
    EXPECT_EQ(compared.exitStatus, 0) << compared.describe();
  }

  static std::unique_ptr<CephCluster> cluster_;
  static int number_;
  std::string fileset_;
  std::unique_ptr<TreeBuilder> tree_;
};

std::unique_ptr<CephCluster> CephRestore::cluster_;
int CephRestore::number_ = 0;

TEST_F(CephRestore, EverythingComesBack) {
  TreeBuilder &t = *tree_;
  for (const char *dir : {"d/sub", "e", "p/q", "gone/deep", "one", "other/in"}) t.dirs(dir);
  for (const char *file : {"a", "b", "c", "d/f", "d/sub/f", "gone/deep/f", "one/f", "other/in/f"})
    t.file(file, std::string("the contents of ") + file);
  t.big("large", 9 << 20, 1);
  t.sparse("sparse", 32 << 20, {0, 20 << 20});
  t.link("a", "e/a2");
  t.link("c", "d/c2");
  t.symlink("target", "link");
  t.fifo("fifo");
  t.device("device", S_IFCHR, 4, 1);
  t.setXattr("b", "user.colour", "blue");
  t.setXattr("b", "trusted.secret", "x");
  t.setXattr("c", kAccessAcl, aclForUser(7, 6));
  t.setXattr("d", kDefaultAcl, aclForUser(8, 5));
  t.file("striped", "");
  t.setXattr("striped", "ceph.file.layout", kLayout);
  t.pattern("striped", 0, 500'000, 3);
  t.setXattr("p", "ceph.dir.layout", kLayout);
  t.chmod("d/f", 04751);
  t.chown("d/sub/f", 5, 6);
  t.mtime("large", 1'000'000'000, 123'456'789);
  const std::string snapshot = cluster_->takeSnapshot(fileset_, "snap");

  t.write("large", 5'000'000, "XX");
  t.write("sparse", 10 << 20, "data in a hole");
  t.write("striped", 200'000, "YY");
  t.truncate("a", 3);
  t.remove("c");
  t.link("a", "third");
  t.removeTree("gone");
  t.remove("link");
  t.remove("fifo");
  t.remove("device");
  t.removeXattr("b", "user.colour");
  t.setXattr("b", "user.other", "new");
  t.removeXattr("d", kDefaultAcl);
  t.removeXattr("p", "ceph.dir.layout");
  t.chmod("d/f", 0600);
  t.chown("d/sub/f", 1, 1);
  t.rename("d", "p/q/moved");
  t.rename("one", "between");
  t.rename("other", "one");
  t.rename("between", "other");
  t.rename("b", "e/elsewhere");
  t.file("b", "somebody else's");
  t.dirs("new/in");
  t.file("new/in/f", "n");
  expectRestored(snapshot);
}

// The number of a deleted inode means nothing to a metadata server that has been started again.
TEST_F(CephRestore, DeletedInodesAreReachedAfterARestart) {
  TreeBuilder &t = *tree_;
  t.dirs("gone/deep/er");
  for (const char *file : {"gone/f", "gone/deep/f", "gone/deep/er/f", "f"}) t.file(file, file);
  t.symlink("somewhere", "gone/link");
  t.setXattr("f", "user.a", "b");
  const std::string snapshot = cluster_->takeSnapshot(fileset_, "snap");
  t.removeTree("gone");
  t.remove("f");
  t.file("kept", "k");
  cluster_->restartMds();
  expectRestored(snapshot);
}

TEST_F(CephRestore, NamesWhatIsMissing) {
  tree_->file("f", "x");
  cluster_->takeSnapshot(fileset_, "there");
  const RunResult result = run("snap");
  EXPECT_NE(result.exitStatus, 0);
  EXPECT_NE((result.err + result.out).find("has no snapshot snap; there are there"), std::string::npos)
      << result.describe();
}

}  // namespace
