// A difference on a CephFS that is computed in groups, as several processes do it, is the same as that
// of one process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "histories/generator.h"
#include "platform/kest_reader.h"
#include "support/ceph_cluster.h"
#include "support/restore_run.h"

namespace {

using namespace kesttest;
using testsupport::CephCluster;
using testsupport::TreeBuilder;

// Compares the groups of every round here, each by a client of its own.
struct Rounds {
  std::string device, fileset;
  std::string folder = "/mnt/rounds";
  int round = 0;
  size_t groups = 0;

  std::string directories() const { return folder + "/" + std::to_string(round); }
  std::string part(size_t group) const { return directories() + "." + std::to_string(group); }
  static Rounds *of(void *arg) { return static_cast<Rounds *>(arg); }

  static int openDirectories(void *arg) {
    ++of(arg)->round;
    return open(of(arg)->directories().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  }
  static int compare(void *arg, const kest_group_t *groups, size_t count) {
    Rounds &own = *of(arg);
    const Handle active = openHandle(own.device, own.fileset);
    const Handle snapshot = openHandle(own.device, own.fileset, "snap");
    own.groups += count;
    for (size_t i = 0; i < count; ++i) {
      // The part of a process that died is not there, and one is done again.
      for (int attempt = 0; attempt < 2; ++attempt) {
        const testsupport::Descriptor from(open(own.directories().c_str(), O_RDONLY | O_CLOEXEC));
        const testsupport::Descriptor to(
            open(own.part(i).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        const Scan scan = openDifference(active, snapshot);
        if (kest_compare_group(scan.get(), from.get(), &groups[i], to.get()) != 0) return -1;
      }
    }
    return 0;
  }
  static int openPart(void *arg, size_t group) {
    return open(of(arg)->part(group).c_str(), O_RDONLY | O_CLOEXEC);
  }
};

class SharedDifference : public testing::Test {
 protected:
  static void SetUpTestSuite() { cluster_ = std::make_unique<CephCluster>(); }
  static void TearDownTestSuite() { cluster_.reset(); }

  // Everything that a walk is told about the difference.
  static std::string told(const Handle &active, const Scan &scan, const std::string &root) {
    std::string text = inodesOf(scan) + "\n";
    std::istringstream numbers(inodesOf(scan));
    for (int64_t number = 0; numbers >> number;) {
      const auto ino = static_cast<uint64_t>(std::abs(number));
      uint64_t twin = 0;
      EXPECT_EQ(kest_twin(scan.get(), ino, &twin), 0);
      text += std::to_string(ino) + " " + std::to_string(kest_idifference(scan.get(), ino)) + " " +
              std::to_string(twin) + "\n";
    }
    // Paths may be longer than a call takes.
    const std::string list = "/mnt/directories";
    testsupport::runCommand("find " + root + " -type d -printf '%i\\n' | sort -n > " + list);
    std::istringstream directories(testsupport::readAll(list));
    for (uint64_t ino = 0; directories >> ino;) {
      const int leads = kest_leads_to_change(scan.get(), ino);
      text += std::to_string(ino) + " " + std::to_string(leads);
      if (leads == 1)
        text += " " + changedEntries(active, scan, ino) + " -> " + leadingEntries(active, scan, ino);
      text += "\n";
    }
    return text;
  }

  static void expectSame(const std::string &fileset, size_t *groups) {
    const std::string device = cluster_->mountPoint(), root = cluster_->path(fileset);
    Handle active = openHandle(device, fileset);
    Handle snapshot = openHandle(device, fileset, "snap");
    std::string want;
    {
      const Scan scan = openDifference(active, snapshot);
      want = told(active, scan, root);
    }
    for (const size_t most : {1, 3}) {
      Rounds rounds{device, fileset};
      std::filesystem::create_directory(rounds.folder);
      const kest_division_t division{
          most, most, &rounds, Rounds::openDirectories, Rounds::compare, Rounds::openPart};
      const Scan scan = openDifference(active, snapshot);
      ASSERT_EQ(kest_divide_difference(scan.get(), &division), 0);
      EXPECT_EQ(told(active, scan, root), want);
      std::filesystem::remove_all(rounds.folder);
      *groups += rounds.groups;
    }
  }

  static std::unique_ptr<CephCluster> cluster_;
};

std::unique_ptr<CephCluster> SharedDifference::cluster_;

TEST_F(SharedDifference, IsThatOfOneProcessAfterRandomHistories) {
  size_t groups = 0;
  for (const char *profile : {"all", "names", "links", "trees"}) {
    SCOPED_TRACE(profile);
    const std::string fileset = profile;
    cluster_->makeFileset(fileset);
    TreeBuilder top(cluster_->path(fileset));
    // A tree of a history is small, so several lie side by side.
    std::vector<std::unique_ptr<TreeBuilder>> trees;
    std::vector<histories::Generator> generators;
    for (uint64_t seed = 1; seed <= 8; ++seed) {
      top.dirs(std::to_string(seed));
      trees.push_back(std::make_unique<TreeBuilder>(top.root() + "/" + std::to_string(seed)));
      generators.emplace_back(profile, seed);
      generators.back().buildInitial(*trees.back());
    }
    cluster_->takeSnapshot(fileset, "snap");
    for (size_t i = 0; i < trees.size(); ++i) generators[i].change(*trees[i]);
    // Something of each goes to the next.
    for (size_t i = 0; i < trees.size(); ++i) {
      const std::vector<std::string> names = trees[i]->names(".");
      if (!names.empty())
        top.rename(std::to_string(i + 1) + "/" + names.front(),
                   std::to_string((i + 1) % trees.size() + 1) + "/from the other");
    }
    testsupport::runCommand("sync -f " + cluster_->mountPoint());
    expectSame(fileset, &groups);
  }
  EXPECT_GT(groups, 30u) << "the difference was hardly ever divided";
}

// What one part cannot know: where a directory went that it misses, and whether a file has another
// name.
TEST_F(SharedDifference, UnitesWhatSeveralGroupsFound) {
  const std::string fileset = "across";
  cluster_->makeFileset(fileset);
  TreeBuilder tree(cluster_->path(fileset));
  for (int i = 0; i < 20; ++i) {
    const std::string dir = "d" + std::to_string(i);
    tree.dirs(dir + "/below/deep");
    for (const char *name : {"/one", "/two", "/below/deep/three", "/below/twin"})
      tree.file(dir + name, dir);
    tree.mtime(dir + "/below/twin", 1000);
    tree.mtime(dir + "/below", 1000);
    if (i > 0) tree.link("d" + std::to_string(i - 1) + "/one", dir + "/linked");
  }
  cluster_->takeSnapshot(fileset, "snap");
  for (int i = 0; i < 20; ++i) {
    const std::string dir = "d" + std::to_string(i), next = "d" + std::to_string((i + 7) % 20);
    if (i % 5 == 0) tree.rename(dir + "/below/deep", next + "/moved");
    if (i % 5 == 1) tree.append(dir + "/one", "more");
    if (i % 5 == 2) tree.rename(dir + "/two", next + "/elsewhere");
    if (i % 5 == 3) {
      tree.dirs(dir + "/new/newer/newest");
      tree.rename(dir + "/below/deep", dir + "/new/newer/kept");
    }
    if (i % 5 != 4) continue;
    tree.remove(dir + "/below/twin");
    tree.file(dir + "/below/twin", dir);
    tree.mtime(dir + "/below/twin", 1000);
    tree.mtime(dir + "/below", 1000);
  }
  testsupport::runCommand("sync -f " + cluster_->mountPoint());
  size_t groups = 0;
  expectSame(fileset, &groups);
  EXPECT_GT(groups, 10u);
}

// What is not whole is never taken for a difference.
TEST_F(SharedDifference, FailsWithAPartThatIsNotWhole) {
  const std::string fileset = "cut";
  cluster_->makeFileset(fileset);
  TreeBuilder tree(cluster_->path(fileset));
  for (int i = 0; i < 8; ++i) tree.dirs("d" + std::to_string(i) + "/e");
  cluster_->takeSnapshot(fileset, "snap");
  for (int i = 0; i < 8; ++i) tree.file("d" + std::to_string(i) + "/e/new");
  testsupport::runCommand("sync -f " + cluster_->mountPoint());
  const Handle active = openHandle(cluster_->mountPoint(), fileset);
  const Handle snapshot = openHandle(cluster_->mountPoint(), fileset, "snap");
  Rounds rounds{cluster_->mountPoint(), fileset};
  std::filesystem::create_directory(rounds.folder);
  const auto cutting = [](void *arg, const kest_group_t *groups, size_t count) {
    if (Rounds::compare(arg, groups, count) != 0) return -1;
    const std::string part = Rounds::of(arg)->part(0);
    std::filesystem::resize_file(part, std::filesystem::file_size(part) - 1);
    return 0;
  };
  const kest_division_t division{1, 100, &rounds, Rounds::openDirectories, cutting, Rounds::openPart};
  const Scan scan = openDifference(active, snapshot);
  ASSERT_EQ(kest_divide_difference(scan.get(), &division), 0);
  EXPECT_FAILS(EBADMSG, kest_leads_to_change(scan.get(), 1));
  std::filesystem::remove_all(rounds.folder);
}

}  // namespace
