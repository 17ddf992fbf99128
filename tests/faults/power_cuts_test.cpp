// The power fails at many moments of a restore: the disk keeps what was flushed and part of what was
// written later. The same command must then succeed.
//
// CUTS=300 in the environment: that many cuts instead of a few.
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <thread>

#include "faults/faults_fixture.h"
#include "support/descriptor.h"
#include "support/write_recorder.h"

using namespace faults;
using testsupport::runCommand;
using testsupport::WriteRecorder;

namespace {

constexpr int kCutsOfOneRun = 27;
constexpr char kBefore[] = "/mnt/before.image";

// Commits the file system and flushes single files now and then, as other programs do. Without that the
// disk would stay as it was at the start of the run.
class Syncing {
 public:
  Syncing(std::string mount, std::string root, unsigned seed)
      : mount_(std::move(mount)), root_(std::move(root)), random_(seed), thread_([this] { work(); }) {}
  ~Syncing() {
    end_ = true;
    thread_.join();
  }

 private:
  void work() {
    static const char *const names[] = {"changed", "gone/a/data", "names/from", "links/one", ""};
    while (!end_) {
      usleep(static_cast<useconds_t>(random_() % 15000));
      const bool all = random_() % 3 == 0;
      const std::string path = all ? mount_ : root_ + "/" + names[random_() % std::size(names)];
      const testsupport::Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
      if (fd.valid()) all ? syncfs(fd.get()) : fsync(fd.get());
    }
  }

  std::string mount_, root_;
  std::minstd_rand random_;
  std::atomic<bool> end_ = false;
  std::thread thread_;
};

class PowerCuts : public Faults {
 protected:
  struct Begin {
    std::string stage;
    uint64_t record;  // number of writes and flushes that the disk had seen
  };

  // Mounts the file system as a cut at this moment would leave it.
  void cut(const WriteRecorder &disk, uint64_t at, const std::function<bool()> &survives) {
    detach();
    runCommand("cp --sparse=always " + std::string(kBefore) + " " + fs().image());
    disk.cut(fs().image(), at, survives);
    remount();
  }

  // Restores while the disk is recorded. Returns the stages of the run, and its end as the last one.
  std::vector<Begin> record(WriteRecorder &disk, unsigned seed) {
    std::vector<Begin> begins;
    runCommand("mount -t btrfs -o loop,nodiscard " + disk.device() + " " + fs().mountPoint());
    {
      const Syncing syncing(fs().mountPoint(), root(), seed);
      auto run = start();
      for (const Stage &stage : kStages)
        if (reach(*run, stage)) begins.push_back({stage.name, disk.count()});
      EXPECT_TRUE(waitUntil([&] { return run->ended(); }, 30)) << run->said();
      EXPECT_EQ(run->exitStatus(), 0) << run->said();
    }
    begins.push_back({"after the end", disk.count()});
    EXPECT_EQ(umount(fs().mountPoint().c_str()), 0);
    begins.push_back({"", disk.count()});
    disk.stop();
    return begins;
  }
};

TEST_F(PowerCuts, ThenTheSameCommand) {
  const char *wanted = getenv("CUTS");
  const int most = wanted ? atoi(wanted) : kCutsOfOneRun;
  struct Count {
    int cuts = 0, untouched = 0, equal = 0;
  };
  std::map<std::string, Count> counts;
  int done = 0;
  for (unsigned seed = 1; done < most; ++seed) {
    prepare();
    detach();
    runCommand("cp --sparse=always " + fs().image() + " " + kBefore);
    WriteRecorder disk(kBefore, "/mnt/recorder");
    const std::vector<Begin> begins = record(disk, seed);
    // Checks the recording itself: before the run nothing of it is on disk, at its end everything.
    cut(disk, 0, [] { return true; });
    EXPECT_TRUE(isAsBefore());
    cut(disk, begins.back().record, [] { return true; });
    EXPECT_TRUE(equalsSnapshot());
    ASSERT_GE(begins.size(), std::size(kStages)) << "too few stages were seen";

    std::minstd_rand random(seed);
    for (int i = 0; i < kCutsOfOneRun && done < most; ++i, ++done) {
      const size_t stage = static_cast<size_t>(i) % (begins.size() - 1);
      const uint64_t from = begins[stage].record, length = begins[stage + 1].record - from;
      const uint64_t at = from + random() % (length + 1);
      SCOPED_TRACE(begins[stage].stage + ", recording " + std::to_string(seed) + ", cut " +
                   std::to_string(i) + " behind write " + std::to_string(at));
      cut(disk, at, [&] { return random() / 7 % 2 == 0; });
      Count &count = counts[begins[stage].stage];
      ++count.cuts;
      count.untouched += isAsBefore();
      count.equal += equalsSnapshot();
      expectRepairedByNextRun();
      if (HasFailure()) return;
    }
    cut(disk, 0, [] { return true; });
    printf("recorded: %llu writes and flushes\n", static_cast<unsigned long long>(disk.count()));
  }
  unlink(kBefore);
  for (const auto &[stage, count] : counts)
    printf("%5d  %s: %d as before the run, %d equal already\n", count.cuts, stage.c_str(),
           count.untouched, count.equal);
  printf("%5d cuts\n", done);
}

}  // namespace
