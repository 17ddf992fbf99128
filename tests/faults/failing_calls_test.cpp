// A call of the library fails once. The run must end with 1 and report the reason, the next run must
// succeed, and nothing may be lost. Exit status 0 with a difference is never acceptable.
//
// FAULTS_THOROUGH=1 in the environment: many errors of each call instead of one.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>

#include "faults/faults_fixture.h"

using namespace faults;

namespace {

enum class Outcome {
  kFails,           // exit status 1
  kFailsElsewhere,  // exit status 1 with the errno of another call
  kRetried,         // in a worker that has not begun yet, which then counts as lost
  kEither,          // some callers can do without the answer
  kCannotFail       // it answers yes or no
};

Outcome outcomeOf(const std::string &call, int where) {
  static const std::set<std::string> preparation{
      "kest_get_fset_snaphandle_by_name", "kest_get_fssnapid_from_fssnaphandle",
      "kest_get_pathname_from_fssnaphandle", "kest_statfs64", "kest_open_inodescan64"};
  static const std::set<std::string> either{
      "kest_idifference",  // then clone attributes are read
      "kest_is_writable",  // of the snapshot: only a warning
      "kest_lstat",        // then the name counts as taken
      "kest_younger",      // then the object counts as somebody else's
      "kest_remove_lock", "kest_path_descriptor", "kest_open_path"};
  static const std::set<std::string> answers{"kest_same_file", "kest_is_quota_file", "kest_other_node",
                                             "kest_spans_nodes"};
  if (answers.count(call)) return Outcome::kCannotFail;
  // If it is to clear flags, the step that they forbid fails.
  if (call == "kest_fcntl") return Outcome::kFailsElsewhere;
  if (where != kMaster && preparation.count(call)) return Outcome::kRetried;
  return either.count(call) ? Outcome::kEither : Outcome::kFails;
}

class FailingCalls : public Faults {
 protected:
  void expectFailureAndRepair(const Fault &fault, Outcome outcome = Outcome::kFails) {
    SCOPED_TRACE(fault.words());
    prepare();
    const std::string mounts = readAll("/proc/self/mountinfo");
    RunResult result = restoreWith(fault);
    EXPECT_EQ(readAll("/proc/self/mountinfo"), mounts);
    const bool mayPass = outcome == Outcome::kEither && result.exitStatus == 0;
    if (outcome == Outcome::kRetried || mayPass) {
      expectEqual(result);
      // During the preparation of a worker, even a call that may fail ends the worker.
      EXPECT_GE(retriesTold(result), outcome == Outcome::kRetried ? 1 : 0) << what();
      EXPECT_LE(retriesTold(result), 1) << what();
      return;
    }
    EXPECT_EQ(result.exitStatus, 1) << (equalsSnapshot() ? "equal\n" : "NOT EQUAL\n") << what();
    EXPECT_TRUE(hasMessage(result)) << what();
    const char *reason = outcome == Outcome::kFails && fault.error != 0 ? strerror(fault.error) : "";
    EXPECT_NE(result.err.find(reason), std::string::npos) << what();
    expectRepairedByNextRun();
  }
};

TEST_F(FailingCalls, EachCall) {
  std::map<std::string, std::vector<std::pair<int, uint32_t>>> places;
  for (const auto &[place, count] : calls()) places[place.first].emplace_back(place.second, count);
  EXPECT_GE(places.size(), 36u) << "the history does not need the whole library any more";
  // Thorough: every call in every phase at several moments. Otherwise every call once.
  const bool thorough = getenv("FAULTS_THOROUGH") != nullptr;
  size_t turn = 0, sum = 0;
  for (const auto &[call, phases] : places) {
    ++turn;
    size_t injected = 0;
    for (size_t i = 0; i < phases.size(); ++i) {
      const auto [where, count] = phases[i];
      const Outcome outcome = outcomeOf(call, where);
      if (outcome == Outcome::kCannotFail) continue;
      std::set<uint64_t> moments;
      if (thorough)
        moments = {1, 1 + count / 3, 1 + count * 2 / 3};
      else if (i == turn % phases.size())
        moments = {1 + turn * 7 % (1 + count / 2)};
      for (uint64_t nth : moments)
        expectFailureAndRepair({.call = call.c_str(), .error = EIO, .where = where, .nth = nth},
                               outcome);
      injected += moments.size();
    }
    printf("%5zu  %s\n", injected, call.c_str());
    sum += injected;
  }
  printf("%5zu errors injected\n", sum);
}

// A failure without an errno is a failure nevertheless: the batch that it stops is not done.
TEST_F(FailingCalls, FailureWithoutAnErrorNumber) {
  const std::pair<const char *, int> cases[] = {{"kest_unlink", kMain},       {"kest_ishare", kMain},
                                                {"kest_iset_times", kDirs},   {"kest_link", kLinks},
                                                {"kest_rename_noreplace", 4}, {"kest_next_inode64", 0}};
  for (const auto &[call, where] : cases)
    expectFailureAndRepair({.call = call, .error = 0, .where = where, .nth = 2});
}

// Where blocks cannot be shared, data and holes are written one by one.
TEST_F(FailingCalls, BlocksThatCannotBeSharedAreCopied) {
  const auto build = [](scenario::TreeBuilder &t) {
    t.big("unchanged between holes", 16384, 1);
    for (const uint64_t at : {0, 8192}) t.punch("unchanged between holes", at, 4096);
    t.sparse("cut in a hole", 65536, {0});
    t.big("grown", 10000, 3);
    t.big("grown from less than a block", 100, 4);
    t.sparse("grown after a hole", 10000, {0});
    t.sparse("cut before data and holes", 300000, {0, 200000});
  };
  const auto change = [](scenario::TreeBuilder &t) {
    for (const uint64_t at : {0, 8192}) t.pattern("unchanged between holes", at, 4096, 2);
    t.truncate("cut in a hole", 20000);
    t.pattern("grown", 10000, 5000, 5);
    t.pattern("grown from less than a block", 100, 5000, 5);
    t.pattern("grown after a hole", 10000, 5000, 5);
    t.truncate("cut before data and holes", 6000);
  };
  prepareHistory(build, nullptr, change);
  expectEqual(restoreWith({.call = "kest_ishare", .error = EINVAL, .times = 0}));
}

// The old path of a directory that the walk has moved aside is gone. That excuses nothing below it.
TEST_F(FailingCalls, AbsenceBelowAMovedDirectoryIsAFailure) {
  const auto build = [](scenario::TreeBuilder &t) {
    t.dir("d");
    t.big("d/changed", 10000, 1);
  };
  const auto change = [](scenario::TreeBuilder &t) {
    t.rename("d", "moved");
    t.pattern("moved/changed", 0, 100, 2);
  };
  prepareHistory(build, nullptr, change);
  RunResult result = restoreWith({.call = "kest_ichange", .error = ENOENT, .where = kMaster, .nth = 2});
  EXPECT_EQ(result.exitStatus, 1) << what();
  EXPECT_NE(result.err.find("moved/changed: No such file"), std::string::npos) << what();
  expectRepairedByNextRun();
}

TEST_F(FailingCalls, NoSpace) {
  const std::pair<const char *, int> cases[] = {
      {"kest_ishare", kMain},   {"kest_icreate", kCreate}, {"kest_ishare", kCreate},
      {"kest_mkdir", kMain},    {"kest_link", kLinks},     {"kest_rename_noreplace", kMaster},
      {"kest_symlink", kMaster}};
  for (const auto &[call, where] : cases) {
    const Fault fault{.call = call, .error = ENOSPC, .where = where, .nth = 1};
    SCOPED_TRACE(fault.words());
    prepare();
    RunResult result = restoreWith(fault);
    EXPECT_EQ(result.exitStatus, 1) << what();
    EXPECT_NE(result.err.find("There is not enough free inode or disk space in the restoring fileset."),
              std::string::npos)
        << what();
    expectRepairedByNextRun();
  }
}

}  // namespace
