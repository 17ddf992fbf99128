// Tests the runner of random histories: a seed gives the same history, good restores pass, bad ones
// fail with the right lines, and failures shrink. Small scripts replace the restore program.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <set>

#include "histories/generator.h"
#include "histories/runner.h"
#include "support/loop_btrfs.h"
#include "support/survival.h"
#include "support/tree_fingerprint.h"

using namespace histories;
using testsupport::fingerprint;
using testsupport::joined;
using testsupport::LoopBtrfs;
using testsupport::TreeBuilder;
using testsupport::TreePrint;

namespace {

// $1 is the mount point, $3 the fileset, $5 the snapshot.
std::string script(const std::string &name, const std::string &body) {
  std::string path = "/mnt/" + name;
  std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
  chmod(path.c_str(), 0755);
  return path;
}

std::string swappingRestore() {
  return script("swap",
                "echo '[now] 1 operations have been added to list.'; "
                "btrfs -q subvolume delete $1/$3 && btrfs -q subvolume snapshot $1/$5 $1/$3");
}

History generated(LoopBtrfs &fs, const std::string &fileset, const std::string &profile,
                  uint64_t seed) {
  fs.createSubvolume(fileset);
  TreeBuilder tree(fs.path(fileset));
  Generator generator(profile, seed);
  History history;
  history.initial = generator.buildInitial(tree);
  history.changes = generator.change(tree);
  return history;
}

// A seed gives the same history, and its printed form builds the same tree.
TEST(Generator, SeedDecidesAndReplayRepeats) {
  LoopBtrfs fs("gen", 1ull << 30);
  std::set<std::string> all;
  for (const std::string &profile : Generator::profiles()) {
    for (uint64_t seed = 11; seed <= 13; ++seed) {
      const std::string name = profile + std::to_string(seed);
      SCOPED_TRACE(name);
      const History history = generated(fs, name, profile, seed);
      EXPECT_EQ(print(history), print(generated(fs, name + "again", profile, seed)));
      EXPECT_TRUE(all.insert(print(history)).second) << "another seed or profile gave it, too";
      EXPECT_FALSE(history.initial.empty() || history.changes.empty());
      const History read = parseHistory(print(history));
      ASSERT_EQ(read.initial, history.initial);
      ASSERT_EQ(read.changes, history.changes);
      fs.createSubvolume(name + "replayed");
      TreeBuilder tree(fs.path(name + "replayed"));
      for (const auto *section : {&read.initial, &read.changes})
        for (const Operation &operation : *section) apply(tree, operation);
      fs.commit();  // the kernel marks incompressible data when it writes it
      std::vector<std::string> lines = compare(fingerprint(fs.path(name)), fingerprint(tree.root()));
      // Times that no operation set come from the clock.
      std::erase_if(lines, [](const std::string &line) { return line.starts_with("mtime of "); });
      EXPECT_EQ(joined(lines), "");
    }
  }
}

TEST(Runner, GoodRestorePasses) {
  Settings settings;
  settings.program = swappingRestore();
  Runner runner(settings);
  for (uint64_t seed = 1; seed <= 10; ++seed) {
    Outcome outcome = runner.generate(seed);
    ASSERT_EQ(joined(outcome.problems), "") << print(outcome.history) << outcome.runText;
  }
}

TEST(Runner, DoingNothingFailsAndShrinksToOneChange) {
  Settings settings;
  settings.profile = "names";
  settings.program = "/bin/true";
  Runner runner(settings);
  Outcome outcome = runner.generate(2);
  ASSERT_FALSE(outcome.problems.empty());
  Outcome small = runner.shrink(outcome, 2);
  EXPECT_FALSE(small.problems.empty());
  EXPECT_EQ(small.history.changes.size(), 1u) << print(small.history);
  EXPECT_LE(small.history.initial.size(), 2u) << print(small.history);
}

TEST(Runner, EachWayToBeWrongIsSeen) {
  struct {
    const char *name, *body, *expected;
  } const cases[] = {
      {"status", "/mnt/swap \"$@\"; exit 1", "exit status: 1"},
      {"left", "/mnt/swap \"$@\"; mkdir $1/$3/RestoreTemp1", "left over: RestoreTemp1"},
      {"lingers", "/mnt/swap \"$@\"; sleep 60 & exit 0", "processes left: 1"},
      {"copies",
       "btrfs -q subvolume delete $1/$3 && btrfs -q subvolume create $1/$3 >/dev/null && "
       "touch $1/$3/shift && rm $1/$3/shift && cp -a $1/$5/. $1/$3",
       "remade: kept"},
      {"touches", "/mnt/swap \"$@\"; chmod 644 $1/$3/kept", "touched: kept had not changed"},
      {"spoils", "btrfs property set $1/$5 ro false; /mnt/swap \"$@\"; touch $1/$5/kept",
       "snapshot changed: mtime of kept"},
  };
  swappingRestore();
  History history;
  history.initial = {{"file", "kept", "", 1, 10}, {"file", "gone", "", 2, 10}};
  history.changes = {{"remove", "gone"}};
  for (const auto &one : cases) {
    Settings settings;
    settings.program = script(one.name, one.body);
    Outcome outcome = Runner(settings).replay(history, 2);
    EXPECT_NE(joined(outcome.problems).find(one.expected), std::string::npos)
        << one.name << "\n"
        << joined(outcome.problems) << outcome.runText;
  }
}

TEST(Survival, HardLinkedInodeMayBeRemadeOnlyWhereNoNameStayed) {
  LoopBtrfs fs("links");
  fs.createSubvolume("f");
  TreeBuilder tree(fs.path("f"));
  tree.dir("d");
  for (const char *name : {"stays", "moves"}) {
    tree.file(name, "x");
    tree.link(name, std::string("d/") + name);
  }
  TreePrint want = fingerprint(fs.snapshot("f", "snap"));
  testsupport::awaitClockTick();  // otherwise the folders look unchanged
  tree.rename("d/stays", "elsewhere");
  tree.rename("moves", "d/other1");
  tree.rename("d/moves", "other2");
  TreePrint before = fingerprint(tree.root());
  for (const char *name : {"elsewhere", "d/other1", "other2", "stays"}) tree.remove(name);
  for (const char *name : {"stays", "moves"}) {
    tree.file(name, "x");
    tree.link(name, std::string("d/") + name);
  }
  std::vector<std::string> lines = remadeOrTouched(want, before, fingerprint(tree.root()), true);
  ASSERT_EQ(lines.size(), 2u) << joined(lines);
  EXPECT_EQ(lines[0].rfind("remade: d/stays", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1].rfind("remade: stays", 0), 0u) << lines[1];
}

}  // namespace
