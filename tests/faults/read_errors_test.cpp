// Blocks of the snapshot cannot be read any more. The run must fail, name the file, and leave no file
// with wrong data and right times.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "faults/faults_fixture.h"
#include "support/descriptor.h"

using namespace faults;
using testsupport::FaultPlan;

namespace {

constexpr uint64_t kFileSystemBytes = 192ull << 20;

class ReadErrors : public Faults {
 protected:
  // Starts with a disk without remains of other tests.
  void SetUp() override {
    makeFileSystem(kFileSystemBytes);
    Faults::SetUp();
  }

  // Changes the byte after `needle` wherever the disk contains it, and drops caches.
  size_t damage(const std::string &needle) {
    detach();
    const std::string disk = readAll(fs().image());
    for (size_t at = 0; (at = disk.find(needle, at)) != std::string::npos; ++at)
      damaged_.emplace_back(at + needle.size(), disk[at + needle.size()]);
    put(1);
    return damaged_.size();
  }
  void mend() {
    detach();
    put(0);
    damaged_.clear();
  }

  // Restores with sharing refused, so that data is read and written.
  testsupport::RunResult copyingRestore() {
    FaultPlan plan(Fault{.call = "kest_ishare", .error = EINVAL, .times = 0});
    return restore("snap", {}, {.environment = plan.environment()});
  }

 private:
  void put(char flipped) {
    {
      const testsupport::Descriptor fd(open(fs().image().c_str(), O_RDWR | O_CLOEXEC));
      for (const auto &[at, was] : damaged_) {
        const char byte = static_cast<char>(was ^ flipped);
        EXPECT_EQ(pwrite(fd.get(), &byte, 1, static_cast<off_t>(at)), 1);
      }
    }
    remount();
  }

  std::vector<std::pair<size_t, char>> damaged_;  // offset and original byte
};

// A truncated file, one changed in the middle and a deleted one; each needs a damaged block.
TEST_F(ReadErrors, OfDataFailTheRunWithTheName) {
  const std::pair<const char *, std::string> cases[] = {
      {"truncated", testsupport::patternBytes(2, 131072, 64)},
      {"changed", testsupport::patternBytes(1, 118784, 64)},
      {"single", testsupport::patternBytes(4, 98304, 64)}};
  for (const auto &[name, needle] : cases) {
    SCOPED_TRACE(name);
    prepare();
    ASSERT_EQ(damage(needle), 1u);
    const auto result = copyingRestore();
    EXPECT_EQ(result.exitStatus, 1) << result.describe();
    EXPECT_NE(result.err.find("Cannot restore " + root() + "/" + name + ": Input/output error"),
              std::string::npos)
        << result.describe();
    EXPECT_NE(std::filesystem::last_write_time(root() + "/" + name),
              std::filesystem::last_write_time(fs().path(snapshotName()) + "/" + name));
    // The same command fails again, and succeeds once the block can be read.
    EXPECT_EQ(copyingRestore().exitStatus, 1);
    mend();
    expectRepairedByNextRun();
  }
}

// Damages the names of a directory that only the snapshot has, in both copies of the metadata.
TEST_F(ReadErrors, OfTheTreeFailTheRun) {
  prepare();
  EXPECT_GE(damage("../data"), 2u);  // the target of gone/a/b/link
  const auto result = restore();
  EXPECT_EQ(result.exitStatus, 1) << result.describe();
  EXPECT_TRUE(hasMessage(result)) << result.describe();
  mend();
  expectRepairedByNextRun();
}

}  // namespace
