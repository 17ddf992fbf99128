// Programs keep working in a directory of the fileset while it is restored.
//
// WRITERS=200 in the environment: that many restores instead of a few.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>

#include "faults/faults_fixture.h"
#include "support/descriptor.h"

using namespace faults;
using testsupport::compare;
using testsupport::Descriptor;
using testsupport::fingerprint;
using testsupport::joined;
using testsupport::TreePrint;

namespace {

constexpr int kWriters = 3;
constexpr unsigned kNames = 12;  // in each directory

// Performs random user operations in two levels of directories below its own. Ignores their errors.
class Writer {
 public:
  Writer(const std::string &dir, unsigned seed, bool calm)
      : calm_(calm),
        dir_(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
        random_(seed),
        thread_([this] {
          while (!end_) {
            step();
            ++steps_;
            if (calm_) usleep(1000);
          }
        }) {}
  ~Writer() { stop(); }
  uint64_t stop() {
    end_ = true;
    if (thread_.joinable()) thread_.join();
    return steps_;
  }

 private:
  unsigned below(unsigned most) { return static_cast<unsigned>(random_()) / 7 % most; }
  std::string name() {
    std::string path = below(2) ? "d" + std::to_string(below(3)) + "/" : "";
    if (below(3) == 0) path += "e" + std::to_string(below(2)) + "/";
    return path + std::string(1, static_cast<char>('a' + below(kNames)));
  }

  void step() {
    const std::string one = name(), other = name();
    const int at = dir_.get();
    switch (calm_ ? 9 + below(3) : below(12)) {
      case 0:
      case 1:
      case 2:
        return writeTo(one);
      case 3:
        return void(renameat(at, one.c_str(), at, other.c_str()));
      case 4:
        return void(linkat(at, one.c_str(), at, other.c_str(), 0));
      case 5:
        return void(unlinkat(at, one.c_str(), 0));
      case 6:
        return void(mkdirat(at, one.substr(0, one.rfind('/')).c_str(), 0755));
      case 7:
        return void(unlinkat(at, one.substr(0, one.rfind('/')).c_str(), AT_REMOVEDIR));
      case 8:
        return void(symlinkat("/mnt/scenario/bystander/file", at, one.c_str()));
      case 9:
        return void(fchmodat(at, one.c_str(), 0600 + below(0177), AT_SYMLINK_NOFOLLOW));
      default:
        return changeOpen(one);
    }
  }

  void writeTo(const std::string &path) {
    const Descriptor fd(
        openat(dir_.get(), path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
    const std::string text = testsupport::patternBytes(below(1000), 0, 1 + below(30000));
    if (fd.valid() && pwrite(fd.get(), text.data(), text.size(), below(100000)) < 0) return;
  }

  void changeOpen(const std::string &path) {
    const Descriptor fd(openat(dir_.get(), path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (!fd.valid()) return;
    struct stat st;
    if (below(3) == 0) fsetxattr(fd.get(), "user.writer", path.data(), path.size(), 0);
    if (below(3) == 0 && ftruncate(fd.get(), below(60000)) != 0) return;
    if (fstat(fd.get(), &st) != 0 || st.st_size < 4096) return;
    void *map = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (map == MAP_FAILED) return;
    // A plain store would kill the test if another writer has truncated the file meanwhile.
    char text[] = "mapped";
    const iovec from{text, sizeof text}, to{map, sizeof text};
    if (process_vm_writev(getpid(), &from, 1, &to, 1, 0) > 0 && below(2)) msync(map, 4096, MS_ASYNC);
    munmap(map, 4096);
  }

  const bool calm_;  // changes existing objects slowly
  Descriptor dir_;
  std::minstd_rand random_;
  std::atomic<bool> end_ = false;
  uint64_t steps_ = 0;
  std::thread thread_;
};

class Writers : public Faults {
 protected:
  // Returns the tree without the directory in which the writers work.
  static TreePrint still(TreePrint tree) {
    std::erase_if(tree.objects, [](const auto &object) {
      return object.first == "busy" || object.first.starts_with("busy/");
    });
    return tree;
  }
};

TEST_F(Writers, DisturbNothingButTheirOwn) {
  const char *wanted = getenv("WRITERS");
  const int most = wanted ? atoi(wanted) : 4;
  const std::string outside = fs().path("bystander");
  testsupport::runCommand("mkdir " + outside + " && echo kept >" + outside + "/file");
  const TreePrint bystander = fingerprint(outside);
  uint64_t steps = 0;
  int ended[2] = {};
  for (int round = 0; round < most; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const bool calm = round % 2 != 0;
    prepare([](testsupport::TreeBuilder &t) {
      for (const char *dir : {"busy/d0/e0", "busy/d1/e1", "busy/d2"}) t.dirs(dir);
      for (const char *name : {"a", "b", "d0/c", "d0/e0/d", "d1/e", "d1/e1/f", "d2/g"})
        t.big(std::string("busy/") + name, 20000, 7);
    });
    std::vector<std::unique_ptr<Writer>> writers;
    for (unsigned i = 0; i < kWriters; ++i)
      writers.push_back(
          std::make_unique<Writer>(root() + "/busy", static_cast<unsigned>(round) * 10 + i, calm));
    usleep(20000);
    const auto result = restore();
    for (auto &writer : writers) steps += writer->stop();
    ASSERT_FALSE(result.timedOut) << result.describe();
    // A directory that must go can get new entries, and a file can disappear; the run reports that.
    ASSERT_TRUE(result.exitStatus == 0 || (result.exitStatus == 1 && !calm)) << result.describe();
    ++ended[result.exitStatus];
    const TreePrint want = fingerprint(fs().path(snapshotName()));
    if (result.exitStatus == 0) {
      EXPECT_EQ(joined(compare(still(want), still(fingerprint(root())))), "") << result.describe();
    }
    EXPECT_EQ(joined(compare(bystander, fingerprint(outside))), "");
    const auto again = restore();
    EXPECT_EQ(again.exitStatus, 0) << result.describe() << again.describe();
    EXPECT_EQ(joined(compare(want, fingerprint(root()))), "") << result.describe() << again.describe();
    if (HasFailure()) return;
  }
  printf("%d restores ended with 0, %d with 1; %llu steps of writers meanwhile\n", ended[0], ended[1],
         static_cast<unsigned long long>(steps));
  EXPECT_GT(steps, 0u);
}

}  // namespace
