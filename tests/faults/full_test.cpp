// From some stage of a restore on, the file system or the fileset's quota is full. The run must report
// that and lose nothing; the same command must succeed once there is room.
//
// FULL_ALL=1 in the environment: every kind of fullness in every stage instead of one.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "faults/faults_fixture.h"
#include "support/descriptor.h"

using namespace faults;
using testsupport::runCommand;

namespace {

enum Kind { kNoDataSpace, kNoMetadataSpace, kNoQuota, kKinds };
constexpr const char *kKindNames[] = {"no data space", "no metadata space", "no quota"};
constexpr uint64_t kFileSystemBytes = 192ull << 20;

class Full : public Faults {
 protected:
  static void SetUpTestSuite() { makeFileSystem(kFileSystemBytes); }

  std::string fillers() { return fs().path("fill"); }

  // Fills space with one large file, then with small files whose data lies in the metadata.
  void fill(bool metadata) {
    runCommand("mkdir -p " + fillers());
    {
      const std::string whole = fillers() + "/whole";
      const testsupport::Descriptor fd(open(whole.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
      off_t at = 0;
      for (off_t piece = 16 << 20; piece >= 4096;)
        posix_fallocate(fd.get(), at, piece) == 0 ? at += piece : piece /= 2;
    }
    const std::string text(2000, 'x');
    for (int i = 0; metadata; ++i) {
      const std::string path = fillers() + "/" + std::to_string(i);
      const testsupport::Descriptor fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
      if (!fd.valid() || write(fd.get(), text.data(), text.size()) < 0 ||
          (i % 500 == 0 && fsync(fd.get())))
        break;
    }
  }

  void makeFull(Kind kind) {
    if (kind != kNoQuota) return fill(kind == kNoMetadataSpace);
    runCommand("btrfs quota enable " + fs().mountPoint() + " && btrfs quota rescan -w " +
               fs().mountPoint());
    runCommand("btrfs qgroup limit 16k " + root());
  }
  void makeRoom(Kind kind) {
    if (kind == kNoQuota) return runCommand("btrfs quota disable " + fs().mountPoint());
    runCommand("rm -rf " + fillers());
    fs().commit();
  }

  // Plants objects that no clean-up may follow or enter.
  void plant(const std::string &workDir, bool nested) {
    runCommand("mkdir -p /mnt/outside && echo kept >/mnt/outside/file && ln -s /mnt/outside " +
               workDir + "/outside");
    if (nested)
      runCommand("btrfs -q subvolume create " + workDir + "/nested && echo kept >" + workDir +
                 "/nested/file");
  }
  void expectPlantsKept(bool nested) {
    EXPECT_EQ(readAll("/mnt/outside/file"), "kept\n");
    if (nested) runCommand("test $(cat " + fs().mountPoint() + "/.unlinked/*-nested/file) = kept");
    runCommand("btrfs -q subvolume delete " + fs().mountPoint() +
               "/.unlinked/*-nested 2>/dev/null || true");
  }
};

TEST_F(Full, ThenTheSameCommand) {
  const bool all = getenv("FULL_ALL") != nullptr;
  int failed[kKinds] = {}, runs[kKinds] = {};
  const int stages = static_cast<int>(std::size(kStages));
  for (int stage = 0; stage < stages - 1; ++stage) {
    for (int kind = 0; kind < kKinds; ++kind) {
      if (!all && stage % kKinds != kind) continue;
      SCOPED_TRACE(std::string(kKindNames[kind]) + " from " + kStages[stage].name + " on");
      const bool nested = stage % 2 != 0;
      auto run = startUntil(kStages[stage]);
      for (int attempt = 1;; ++attempt) {
        ASSERT_TRUE(run);
        for (const Process &process : run->living()) kill(process.pid, SIGSTOP);
        if (!workDirs().empty()) break;
        // It was over before it could be stopped.
        ASSERT_LT(attempt, 10);
        run = startUntil(kStages[stage]);
      }
      plant(workDirs()[0], nested);
      makeFull(static_cast<Kind>(kind));
      for (const Process &process : run->living()) kill(process.pid, SIGCONT);
      ASSERT_TRUE(waitUntil([&] { return run->ended(); }, 60)) << run->said();
      const bool full =
          run->said().find("There is not enough free inode or disk space") != std::string::npos;
      printf("%s, from %s on: exit %d%s\n", kKindNames[kind], kStages[stage].name, run->exitStatus(),
             full ? ", full" : "");
      ++runs[kind];
      failed[kind] += full;
      // A run with nothing left to write needs no space.
      EXPECT_EQ(run->exitStatus(), full) << run->said();
      makeRoom(static_cast<Kind>(kind));
      expectRepairedByNextRun();
      expectPlantsKept(nested);
      if (HasFailure()) return;
    }
  }
  for (int kind = 0; kind < kKinds; ++kind) {
    printf("%5d  %s: %d runs ended for want of it\n", runs[kind], kKindNames[kind], failed[kind]);
    EXPECT_GT(failed[kind], 0) << kKindNames[kind];
  }
}

}  // namespace
