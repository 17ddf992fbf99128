// What a record costs, in calls of the file-system library: figures that a slower way of doing the same
// would change.
#include "faults/faults_fixture.h"

using namespace faults;

namespace {

constexpr uint32_t kFiles = 20;

using RecordCosts = scenario::RestoreFixture;

TEST_F(RecordCosts, NothingIsReadAndObjectsAreOpenedOnce) {
  auto name = [](const char *kind, uint32_t i) { return std::string(kind) + std::to_string(i); };
  for (uint32_t i = 0; i < kFiles; ++i) {
    tree().big(name("changed", i), 30000, i);
    tree().big(name("attributes", i), 30000, i);
    tree().big(name("deleted", i), 30001, i);
  }
  takeSnapshot();
  for (uint32_t i = 0; i < kFiles; ++i) {
    tree().write(name("changed", i), 20000, "x");
    tree().chmod(name("attributes", i), 0600);
    tree().remove(name("deleted", i));
  }
  testsupport::FaultPlan plan({.call = "nothing"});
  scenario::RunOptions options;
  options.environment = plan.environment();
  const RunResult result = restore("snap", {}, options);
  ASSERT_EQ(result.exitStatus, 0) << result.describe();

  auto made = plan.made();
  auto calls = [&](const char *call, int phase) { return made[{std::string("kest_") + call, phase}]; };
  for (const char *copying : {"iread", "ireadx", "iwritex", "truncate"})
    EXPECT_EQ(calls(copying, kMain) + calls(copying, kCreate), 0u) << copying;
  EXPECT_EQ(calls("ishare", kMain), kFiles);
  EXPECT_EQ(calls("ishare", kCreate), kFiles);
  struct Limit {
    const char *call;
    uint32_t most;  // for one record
  };
  for (const Limit &limit : {Limit{"iopen64", 2},
                             {"istat", 2},
                             {"igetattrsx", 0},
                             {"lstat", 2},
                             {"open_path", 0},
                             {"fcntl", 2},
                             {"fgetacl", 1},
                             {"fputacl", 1}}) {
    EXPECT_LE(calls(limit.call, kMain), limit.most * 2 * kFiles) << limit.call;
    EXPECT_LE(calls(limit.call, kCreate), limit.most * kFiles) << limit.call;
  }
  EXPECT_EQ(testsupport::joined(compare(testsupport::fingerprint(fs().path(snapshotName())),
                                        testsupport::fingerprint(root()))),
            "");
}

}  // namespace
