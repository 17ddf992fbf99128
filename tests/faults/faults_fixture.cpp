#include "faults/faults_fixture.h"

#include <filesystem>
#include <sstream>

#include "support/survival.h"

namespace faults {

using scenario::TreeBuilder;
using testsupport::compare;
using testsupport::FaultPlan;
using testsupport::fingerprint;
using testsupport::joined;

namespace {

void build(TreeBuilder &t) {
  for (const char *dir : {"attrs/dir", "names/from/deep", "gone/a/b", "flags/dir", "links/d", "tops"})
    t.dirs(dir);
  t.big("changed", 700000, 1);
  t.big("truncated", 300000, 2);
  t.sparse("sparse", 4 << 20, {0, 2 << 20});
  t.file("attrs/file", "text");
  t.setXattr("attrs/file", "user.kept", "value");
  t.setXattr("attrs/file", testsupport::kAccessAcl, testsupport::aclForUser(1234, 5));
  t.symlink("file", "attrs/link");
  t.fifo("attrs/fifo", 0600);
  t.setXattr("attrs/dir", testsupport::kDefaultAcl, testsupport::aclForUser(1234, 7));
  for (const char *name : {"ring1", "ring2", "ring3", "deep/moved", "deep/replaced", "home"}) {
    t.file(std::string("names/from/") + name, name);
    t.mtime(std::string("names/from/") + name, 1000000000, 5);
  }
  t.dirs("names/swap1/in");
  t.dirs("names/swap2/in");
  t.file("names/swap1/in/file", "1");
  t.big("gone/a/data", 200000, 3);
  t.file("gone/a/b/empty");
  t.symlink("../data", "gone/a/b/link");
  t.fifo("gone/a/b/fifo");
  t.setXattr("gone/a/b/empty", "user.x", "y");
  t.big("single", 150000, 4);
  t.symlink("anywhere", "symlink");
  t.device("device", S_IFCHR, 1, 3);
  t.file("links/one", "linked");
  t.link("links/one", "links/d/two");
  t.file("links/all", "all names removed");
  t.link("links/all", "links/d/all");
  t.file("flags/immutable", "x");
  t.immutable("flags/immutable");
  t.file("flags/dir/inside", "y");
  t.appendOnly("flags/dir");
}

void change(TreeBuilder &t) {
  t.pattern("changed", 100000, 70000, 9);
  t.pattern("changed", 690000, 70000, 9);
  t.truncate("truncated", 0);
  t.punch("sparse", 0, 4096);
  t.pattern("sparse", 1 << 20, 8192, 9);
  t.chmod("attrs/file", 04711);
  t.chown("attrs/link", 7, 7);
  t.chown("attrs/fifo", 7, 7);
  t.mtime("attrs/dir", 5);
  t.setXattr("attrs/dir", "user.new", "x");
  t.removeXattr("attrs/dir", testsupport::kDefaultAcl);
  t.removeXattr("attrs/file", "user.kept");
  t.exchange("names/from/ring1", "names/from/ring2");
  t.exchange("names/from/ring2", "names/from/ring3");
  t.dirs("fresh/below");
  t.rename("names/from/deep/moved", "fresh/below/moved");
  t.chmod("fresh/below/moved", 0600);
  t.mtime("fresh/below/moved", 77);
  t.rename("names/from/home", "names/from/deep/replaced");
  t.exchange("names/swap1", "names/swap2");
  t.rename("names/swap1/in", "fresh/in");
  t.chmod("fresh/in", 0700);
  t.rename("names/from/deep", "fresh/below/deep");
  for (const char *name : {"removed", "fresh/removed", "fresh/below/removed"}) t.file(name, "new");
  t.link("removed", "removed too");  // two records of one inode
  t.rename("gone/a/data", "fresh/data");
  t.pattern("fresh/data", 0, 5000, 9);
  t.removeTree("gone");
  for (const char *name : {"single", "symlink", "device", "links/one", "links/all", "links/d/all"})
    t.remove(name);
  t.immutable("flags/immutable", false);
  t.append("flags/immutable", "changed");
  t.appendOnly("flags/dir", false);
  t.remove("flags/dir/inside");
  t.immutable("flags/dir");
  t.immutable("names/from");
}

}  // namespace

void Faults::prepare(Work further) {
  prepareHistory(build, further, change);
}

void Faults::prepareHistory(Work builds, Work further, Work changes) {
  if (used_) {
    TearDown();
    SetUp();
  }
  used_ = true;
  builds(tree());
  if (further) further(tree());
  takeSnapshot();
  changes(tree());
  want_ = fingerprint(fs().path(snapshotName()));
  before_ = fingerprint(root());
}

std::unique_ptr<Running> Faults::start() {
  return std::make_unique<Running>(std::vector<std::string>{fs().mountPoint(), "-j", fileset(), "-o",
                                                            snapshotName(), "-m", "3", "-B", "2"});
}

bool Faults::reach(Running &run, const Stage &stage) {
  const auto begun = [&] {
    if (&stage == std::end(kStages) - 1) return run.said().find(stage.begins) != std::string::npos;
    const std::vector<std::string> dirs = workDirs();
    return !dirs.empty() && readAll(dirs[0] + "/ErrorLog").find(stage.begins) != std::string::npos;
  };
  return waitUntil([&] { return run.ended() || begun(); }, 20) && !run.ended();
}

std::vector<std::string> Faults::workDirs() const {
  std::vector<std::string> found;
  for (const auto &entry : std::filesystem::directory_iterator(root()))
    if (entry.path().filename().string().starts_with("RestoreTemp")) found.push_back(entry.path());
  return found;
}

std::unique_ptr<Running> Faults::startUntil(const Stage &stage) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    prepare();
    auto run = start();
    if (reach(*run, stage)) return run;
  }
  ADD_FAILURE() << "no run was seen in the stage " << stage.name;
  return nullptr;
}

RunResult Faults::restoreWith(const Fault &fault, unsigned items) {
  FaultPlan plan(fault);
  testsupport::RunOptions options;
  options.environment = plan.environment();
  if (items != 0) {
    options.program = FSETRESTORE_LIMITED;
    options.environment.emplace_back("DIFF_ITEM_LIMIT", std::to_string(items));
  }
  RunResult result = restore("snap", {}, options);
  what_ = plan.describe() + result.describe();
  EXPECT_NE(plan.struck(), 0u) << "the fault never happened\n" << what_;
  EXPECT_FALSE(result.timedOut) << what_;
  EXPECT_EQ(result.processesLeft, 0) << what_;
  return result;
}

void Faults::expectEqual(const RunResult &result) {
  EXPECT_EQ(result.exitStatus, 0) << what_;
  testsupport::TreePrint after = fingerprint(root());
  EXPECT_EQ(joined(compare(want_, after)), "") << what_;
  EXPECT_EQ(joined(remadeOrTouched(want_, before_, after, false)), "") << what_;
  EXPECT_EQ(joined(compare(want_, fingerprint(fs().path(snapshotName())))), "")
      << "the snapshot itself changed\n"
      << what_;
}

void Faults::expectRepairedByNextRun() {
  RunResult result = restore();
  what_ += "--- the next run\n" + result.describe();
  expectEqual(result);
}

bool Faults::hasMessage(const RunResult &result) {
  std::istringstream lines(result.err);
  for (std::string line; std::getline(lines, line);)
    if (!line.empty() && line[0] != '[') return true;
  return result.out.find("\n[20") != std::string::npos;
}

int Faults::retriesTold(const RunResult &result) {
  int told = 0;
  const std::string text = "Get an error from policy engine, retry again for the ";
  for (size_t at = 0; (at = result.err.find(text, at)) != std::string::npos; ++at) ++told;
  return told;
}

bool Faults::equalsSnapshot() {
  return compare(want_, fingerprint(root())).empty();
}

bool Faults::isAsBefore() {
  return compare(before_, fingerprint(root())).empty();
}

const std::map<std::pair<std::string, int>, uint32_t> &Faults::calls() {
  static std::map<std::pair<std::string, int>, uint32_t> counts;
  if (!counts.empty()) return counts;
  prepare();
  FaultPlan plan(Fault{.call = "none"});
  expectEqual(restore("snap", {}, {.environment = plan.environment()}));
  counts = plan.made();
  std::erase_if(counts, [](const auto &one) {
    return one.first.first == testsupport::kTreeSearch || one.first.first == testsupport::kProgramStart;
  });
  return counts;
}

}  // namespace faults
