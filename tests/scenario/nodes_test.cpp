// A restore whose work three nodes share: every node does a part, and the loss of any of them, a signal
// or a node that cannot take part has the effect that it must have.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <string>

#include "support/ceph_cluster.h"
#include "support/loop_btrfs.h"
#include "support/restore_run.h"
#include "support/test_nodes.h"
#include "support/tree_builder.h"
#include "support/tree_fingerprint.h"

using namespace testsupport;

namespace {

constexpr int kFiles = 60;
constexpr int kListed = 330;  // records of which the engine makes a part for each node
constexpr char kNodes[] = "n1,n2,n3";
constexpr double kSeconds = 280;
// Means something to every shell and to GNU parallel.
constexpr char kHostile[] = "a 'b' \"c\" {} {= die =} {1} $(touch run) `touch run` ;#\n\\ *";

class Nodes : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    TestNodes::makeNetwork();
    cluster_ = std::make_unique<CephCluster>();
    nodes_ = std::make_unique<TestNodes>(cluster_->mountPoint(), 3);
  }
  static void TearDownTestSuite() {
    nodes_.reset();
    cluster_.reset();
  }

  // A tree in which every phase has work for all nodes, and its snapshot.
  void makeTree(const std::string &fileset) {
    fileset_ = fileset;
    ASSERT_EQ(mkdir(cluster_->path(fileset).c_str(), 0755), 0);
    tree_ = std::make_unique<TreeBuilder>(cluster_->path(fileset));
    for (const std::string dir : {"changed", "other", "gone", "moved", "linked"})
      for (int i = 0; i < (dir == "changed" || dir == "other" ? kFiles : kListed); ++i) {
        const std::string path = dir + std::to_string(i % 6);
        if (i < 6) tree_->dirs(path);
        tree_->file(path + "/f" + std::to_string(i), path);
      }
    tree_->file("changed0/" + std::string(kHostile), "hostile");
    snapshot_ = cluster_->takeSnapshot(fileset, "snap");
    want_ = fingerprint(snapshot_);
    for (int i = 0; i < kFiles; ++i) {
      tree_->append("changed" + std::to_string(i % 6) + "/f" + std::to_string(i), "more");
      tree_->dirs("new" + std::to_string(i));
    }
    for (int i = 0; i < kListed; ++i) {
      const std::string dir = std::to_string(i % 6), file = "/f" + std::to_string(i);
      tree_->rename("moved" + dir + file, "other" + dir + "/g" + std::to_string(i));
      tree_->link("linked" + dir + file, "other" + dir + "/l" + std::to_string(i));
      if (i % 6 > 2) tree_->remove("gone" + dir + file);
    }
    for (const char *dir : {"gone0", "gone1", "gone2"}) tree_->removeTree(dir);
    tree_->rename("changed0/" + std::string(kHostile), "new1/" + std::string(kHostile));
    runCommand("sync -f " + cluster_->mountPoint());
  }
  void TearDown() override {
    EXPECT_EQ(waitUntil([] { return TestNodes::atWork().empty(); }, 20), true)
        << TestNodes::atWork().front();
    tree_.reset();
  }

  std::vector<std::string> words(int node, const std::string &nodes) const {
    return nodes_->words(node, {kRestoreProgram, cluster_->mountPoint(), "-j", fileset_, "-o", "snap",
                                "-q", "-m", "6", "-N", nodes});
  }
  RunResult run(int node, const std::string &nodes) {
    return runProgram(words(node, nodes), nodes_->options());
  }
  void expectRestored(const RunResult &result) {
    EXPECT_EQ(result.exitStatus, 0) << result.describe();
    EXPECT_EQ(joined(compare(want_, fingerprint(tree_->root()))), "") << result.describe();
  }
  static void expectSaid(const RunResult &result, const std::string &text) {
    EXPECT_NE((result.err + result.out).find(text), std::string::npos) << text << "\n"
                                                                       << result.describe();
  }
  // What the servers keep for the clients of a lost node, until they evict them by themselves.
  static void evictAll(int node) {
    const std::string address = "10.77.0." + std::to_string(10 + node) + ":";
    const char *conf = getenv("CEPH_CONF");
    ASSERT_TRUE(conf);
    runCommand("for id in $(ceph -c " + std::string(conf) +
               " tell mds.m client ls 2> /dev/null | python3 -c 'import json, sys\n"
               "for one in json.load(sys.stdin):\n"
               "  if \"" +
               address + "\" in one[\"inst\"]: print(one[\"id\"])'); do ceph -c " +
               getenv("CEPH_CONF") + " tell mds.m client evict id=$id > /dev/null 2>&1; done");
  }

  static std::unique_ptr<CephCluster> cluster_;
  static std::unique_ptr<TestNodes> nodes_;
  std::string fileset_, snapshot_;
  std::unique_ptr<TreeBuilder> tree_;
  TreePrint want_;
};

std::unique_ptr<CephCluster> Nodes::cluster_;
std::unique_ptr<TestNodes> Nodes::nodes_;

// The engine alone: every record goes to one worker, and the first failure ends the run everywhere.
TEST_F(Nodes, EveryRecordOnceAndNothingAfterAFailure) {
  const std::string top = cluster_->path("engine"), dir = top + "/{= die =} 'g'";
  for (const std::string &path : {top, dir, top + "/out"}) ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  const auto apply = [&](const std::string &options) {
    std::ofstream(top + "/policy") << "RULE EXTERNAL LIST 'all' EXEC '" POLICY_WORKER "' OPTS '"
                                   << options << "'";
    return runProgram(nodes_->words(1, {"/usr/qtx/kest/bin/ktapplypolicy", cluster_->mountPoint(), "-P",
                                        top + "/policy", "-g", dir, "-r", top + "/list", "-m", "6",
                                        "-B", "20", "-N", kNodes}),
                      nodes_->options());
  };
  {
    std::ofstream list(top + "/list");
    for (int i = 0; i < 2000; ++i) {
      char record[100];
      snprintf(record, sizeof record, "%d:0:%11x:0:0:0:0:0:2!/p:0!;9!7,0,0,0,0\n", i / 10, 256 + i);
      list << record;
    }
  }
  RunResult result = apply("node " + top + "/out");
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  runCommand("cd " + top +
             "/out && ls | cut -d. -f1 | sort -u | tr '\\n' ' ' > ../nodes && cat * | sort | " +
             "uniq -c | sort -n | awk '{ print $1 }' | uniq -c > ../counts");
  EXPECT_EQ(readAll(top + "/nodes"), "n1 n2 n3 ");
  EXPECT_EQ(readAll(top + "/counts"), "   2000 1\n");
  runCommand("rm " + top + "/out/*");
  result = apply("shell \"echo . >> " + top + "/out/$(hostname); sleep 1; exit 28\"");
  EXPECT_EQ(result.exitStatus, 28) << result.describe();
  runCommand("cat " + top + "/out/* > " + top + "/begun");
  EXPECT_LE(readAll(top + "/begun").size(), 12u) << "two bytes for each of six workers";
  EXPECT_TRUE(TreeBuilder(top).names("{= die =} 'g'").empty());
}

TEST_F(Nodes, ShareARestoreOfHostileNames) {
  makeTree(kHostile);
  expectRestored(run(1, kNodes));
  EXPECT_FALSE(tree_->exists("run"));
  expectRestored(run(2, kNodes));
}

TEST_F(Nodes, WhatCannotTakePartEndsTheRunBeforeItBegins) {
  makeTree("refused");
  const TreePrint before = fingerprint(tree_->root());
  const auto expectRefused = [&](const std::string &nodes, const std::string &text) {
    const RunResult result = run(1, nodes);
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
    expectSaid(result, text);
    expectSaid(result, "Nothing was changed");
    // The work directory that is gone again has left its mark on the root's own time.
    EXPECT_LE(compare(before, fingerprint(tree_->root())).size(), 1u);
  };
  nodes_->shell(2,
                "printf '#!/bin/sh\\necho fsetrestore 0.1\\n' > /run/old; chmod +x /run/old;"
                "mount --bind /run/old /usr/qtx/kest/bin/fsetrestore");
  expectRefused(kNodes, "node n2: it has \"fsetrestore 0.1\"");
  nodes_->shell(2, "umount /usr/qtx/kest/bin/fsetrestore");
  nodes_->shell(3, "mount -t tmpfs none " + cluster_->mountPoint());
  expectRefused(kNodes, "node n3: ");
  nodes_->shell(3, "umount " + cluster_->mountPoint());
  expectRefused("n1,n9", "node n9: cannot be reached");
}

// In each of the phases a node is lost, by its network or for good, when a worker on it has done its
// records and has not ended.
TEST_F(Nodes, ALostNodeIsDoneWithout) {
  for (const char *phase : {"-p 3 ", "-p 4 ", "-p 51 ", "-p 8 "}) {
    SCOPED_TRACE(phase);
    const bool cut = phase[3] == '3' || phase[3] == '8';
    makeTree("lost" + std::string(phase + 3, 1));
    nodes_->shell(3, "printf '#!/bin/sh\\n" BUILT_PROGRAM " \"$@\" || exit\\ncase \"$*\" in *\"" +
                         std::string(phase) +
                         "\"*) sleep 30;; esac\\n' > /run/slow; chmod +x /run/slow;"
                         "mount --bind /run/slow /usr/qtx/kest/bin/fsetrestore");
    Running run(words(1, kNodes), nodes_->options());
    ASSERT_TRUE(waitUntil([&] { return run.ended() || nodes_->find(3, phase) != 0; }, kSeconds));
    ASSERT_FALSE(run.ended()) << run.said();
    nodes_->change(cut ? "cut" : "kill", 3);
    usleep(500000);
    evictAll(3);
    ASSERT_TRUE(waitUntil([&] { return run.ended(); }, kSeconds)) << run.said();
    EXPECT_EQ(run.exitStatus(), 0) << run.said();
    EXPECT_NE(run.said().find("node n3 is lost"), std::string::npos) << run.said();
    EXPECT_EQ(joined(compare(want_, fingerprint(tree_->root()))), "") << run.said();
    if (cut) {
      // Nothing on it may go on once it is back. Until then the kernel may wait for an answer to a
      // worker's request, and cannot end the worker.
      nodes_->change("join", 3);
      EXPECT_TRUE(waitUntil([&] { return nodes_->find(3, "LIST") == 0; }, 60));
      nodes_->change("kill", 3);
    }
    evictAll(3);
    nodes_->change("restart", 3);
  }
}

// The comparison itself, of a tree that is large enough for it.
TEST_F(Nodes, ShareTheScan) {
  for (const char *name : {"scan", "scanlost"}) {
    SCOPED_TRACE(name);
    makeTree(name);
    for (int i = 0; i < 160; ++i)
      tree_->dirs("wide/" + std::to_string(i % 16) + "/" + std::to_string(i));
    for (int i = 0; i < 160; ++i)
      tree_->file("wide/" + std::to_string(i % 16) + "/" + std::to_string(i) + "/file", name);
    cluster_->removeSnapshot(fileset_, "snap");
    snapshot_ = cluster_->takeSnapshot(fileset_, "snap");
    want_ = fingerprint(snapshot_);
    for (int i = 0; i < 160; i += 7) {
      const std::string dir = "wide/" + std::to_string(i % 16) + "/" + std::to_string(i);
      tree_->append(dir + "/file", "more");
      tree_->dirs("fresh" + std::to_string(i) + "/a/b");
      tree_->rename(dir, "fresh" + std::to_string(i) + "/a/moved");
    }
    tree_->removeTree("wide/9");
    runCommand("sync -f " + cluster_->mountPoint());
    Running run(words(1, kNodes), nodes_->options());
    if (std::string(name) == "scanlost") {
      ASSERT_TRUE(waitUntil([&] { return run.ended() || nodes_->find(3, "-p 9 ") != 0; }, kSeconds));
      ASSERT_FALSE(run.ended()) << run.said();
      nodes_->change("kill", 3);
      usleep(500000);
      evictAll(3);
    }
    ASSERT_TRUE(waitUntil([&] { return run.ended(); }, kSeconds)) << run.said();
    EXPECT_EQ(run.exitStatus(), 0) << run.said();
    EXPECT_EQ(run.said().find("node n3 is lost") != std::string::npos, std::string(name) == "scanlost")
        << run.said();
    EXPECT_EQ(joined(compare(want_, fingerprint(tree_->root()))), "") << run.said();
  }
  nodes_->change("restart", 3);
}

TEST_F(Nodes, ASignalEndsEveryNodeAndTheSameCommandFinishes) {
  makeTree("stopped");
  Running run(words(1, kNodes), nodes_->options());
  ASSERT_TRUE(waitUntil([&] { return run.ended() || nodes_->find(3, "LIST") != 0; }, kSeconds));
  ASSERT_FALSE(run.ended()) << run.said();
  kill(nodes_->find(1, std::string(kRestoreProgram) + " " + cluster_->mountPoint()), SIGTERM);
  ASSERT_TRUE(waitUntil([&] { return run.ended(); }, 150)) << run.said();
  EXPECT_EQ(run.exitStatus(), 1) << run.said();
  EXPECT_NE(run.said().find("Terminated"), std::string::npos) << run.said();
  EXPECT_EQ(nodes_->find(2, "LIST") + nodes_->find(3, "LIST"), 0);
  expectRestored(TestNodes::atWork().empty() ? this->run(1, kNodes) : RunResult());
}

TEST_F(Nodes, TheMastersNodeIsLostAndAnotherFinishes) {
  makeTree("orphan");
  {
    Running run(words(1, kNodes), nodes_->options());
    ASSERT_TRUE(waitUntil([&] { return run.ended() || nodes_->find(3, "LIST") != 0; }, kSeconds));
    nodes_->change("kill", 1);
  }
  // Refused as long as the lost client has the lock. A step before that may have to wait for something
  // else that it holds, until the servers evict it by themselves; then this run is the one that
  // finishes.
  const RunResult result = run(2, "n2,n3");
  if (result.exitStatus == 0) {
    expectRestored(result);
  } else {
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
    expectSaid(result, "once the file system has evicted the client");
    evictAll(1);
    expectRestored(run(2, "n2,n3"));
  }
  nodes_->change("restart", 1);
}

}  // namespace
