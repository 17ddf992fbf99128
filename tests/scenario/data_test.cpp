// Contents of files: ranges, holes, sizes, and how the blocks are stored.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/statvfs.h>

#include "scenario/restore_fixture.h"
#include "support/descriptor.h"

using namespace scenario;

namespace {

constexpr uint64_t kMiB = 1 << 20;

// Puts the first block of a file at `to`, too, so that another part of the same extent is there.
void repeatFirstBlock(const std::string &path, uint64_t to) {
  const testsupport::Descriptor fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
  file_clone_range range{fd.get(), 0, 4096, to};
  if (ioctl(fd.get(), FICLONERANGE, &range) != 0) testsupport::failWithErrno("clone in " + path);
}

const HistoryCase kCases[] = {
    {"SizesChanged",
     [](TreeBuilder &t) {
       for (const char *name : {"in place", "grown", "shrunk", "shrunk odd", "to nothing", "longer"})
         t.big(name, 300000, 3);
       t.file("from nothing");
       for (const char *name : {"inline cut", "inline grown", "inline deleted"}) t.big(name, 2047, 17);
     },
     [](TreeBuilder &t) {
       t.write("in place", 0, "first");
       t.write("in place", 299996, "last");
       t.pattern("grown", 300000, 200001, 4);
       t.truncate("shrunk", 131072);
       t.truncate("shrunk odd", 77777);
       t.truncate("to nothing", 0);
       t.pattern("from nothing", 0, 500000, 5);
       t.truncate("longer", 0);
       t.pattern("longer", 0, kMiB, 6);
       t.truncate("inline cut", 10);
       t.pattern("inline grown", 2047, 5000, 23);
       t.remove("inline deleted");
     }},
    {"Holes",
     [](TreeBuilder &t) {
       t.big("punched", 400000, 7);
       t.sparse("filled", 2 * kMiB, {0, 512 * 1024});
       t.sparse("tail", 2 * kMiB + 1, {0});
       t.big("now sparse tail", 10000, 8);
       t.file("zeros", std::string(32768, '\0'));
       for (const char *name : {"reserved", "reserved deleted"}) {
         t.file(name);
         t.preallocate(name, 0, kMiB);
         t.pattern(name, 65536, 8192, 13);
       }
     },
     [](TreeBuilder &t) {
       t.punch("punched", 65536, 131072);
       t.punch("punched", 300000, 50);
       t.pattern("filled", kMiB, 10000, 9);
       t.pattern("tail", kMiB, 4096, 10);
       t.truncate("tail", 3 * kMiB);
       t.truncate("now sparse tail", kMiB);
       t.punch("zeros", 4096, 8192);
       t.pattern("reserved", 0, 100000, 16);
       t.remove("reserved deleted");
     }},
    {"OneTiBSparseWithThreeIslands",
     [](TreeBuilder &t) {
       t.sparse("huge", 1ull << 40, {0, 1ull << 35, (1ull << 40) - 5000});
       t.sparse("huge deleted", 1ull << 40, {1ull << 39});
     },
     [](TreeBuilder &t) {
       t.write("huge", (1ull << 35) + 100, "changed");
       t.pattern("huge", 1ull << 38, 10000, 12);
       t.punch("huge", 0, 8192);
       t.remove("huge deleted");
     },
     testsupport::kLongFiles},
    {"LongestFiles",
     [](TreeBuilder &t) {
       for (const uint64_t size : {INT64_MAX, INT64_MAX - 4095, INT64_MAX - 4094}) {
         for (std::string name :
              {"deleted", "shrunk", "hole at the end", "data at the end", "all data"}) {
           name += std::to_string(size);
           t.sparse(name, size, {0});
           if (name.starts_with("data")) t.write(name, size - 1, "x");
         }
       }
     },
     [](TreeBuilder &t) {
       for (const std::string &name : t.names("")) {
         const uint64_t size = std::stoull(name.substr(name.find_first_of("0123456789")));
         if (name.starts_with("deleted")) t.remove(name);
         if (name.starts_with("shrunk")) t.truncate(name, 5000);
         if (name.starts_with("hole")) t.write(name, size - 1, "x");
         if (name.starts_with("data")) t.write(name, size - 1, "y");
         // Files of the other storage kind cannot share.
         if (name.starts_with("all")) {
           t.truncate(name, 0);
           t.noCow(name);
           t.write(name, size - 5000, std::string(5000, 'z'));
         }
       }
     },
     testsupport::kLongFiles},
    {"SharedBlocks",
     [](TreeBuilder &t) {
       t.big("one", kMiB, 29);
       t.big("twice", 64 * 1024, 30);
     },
     [](TreeBuilder &t) {
       repeatFirstBlock(t.root() + "/twice", 32768);
       t.reflink("one", "copy");
       t.write("one", 1000, "changed");
       t.write("copy", 500000, "changed");
     },
     testsupport::kSharedBlocks},
    {"LargerThanOneRecord", [](TreeBuilder &t) { t.big("large", 70 * kMiB, 30); },
     [](TreeBuilder &t) {
       for (uint64_t at = 0; at < 70 * kMiB; at += 7 * kMiB) t.pattern("large", at, 5000, 31);
       t.punch("large", 33 * kMiB, 2 * kMiB);
     }},
};

TEST_P(RestoreTable, Data) {
  runCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Data, RestoreTable, casesOf(kCases), caseName);

// Files are written twice within one clock tick, so that times and size stay equal.
using SameTick = RestoreFixture;
TEST_F(SameTick, MappedWriteAndPlainWrite) {
  for (int i = 0; i < 5; ++i) {
    std::string number = std::to_string(i);
    tree().big("mapped" + number, 200000, 26);
    tree().big("written" + number, 200000, 27);
    fs().snapshot(fileset(), snapshotName(number));
    tree().writeMapped("mapped" + number, 123456, "written through the mapping");
    tree().write("written" + number, 123456, "written");
    RunResult result = restore(number);
    EXPECT_EQ(result.exitStatus, 0) << result.describe();
    auto want = testsupport::fingerprint(fs().path(snapshotName(number)));
    EXPECT_EQ(testsupport::joined(compare(want, testsupport::fingerprint(root()))), "");
    fs().destroySubvolume(snapshotName(number));
  }
}

using Batches = RestoreFixture;
TEST_F(Batches, RangesFillThem) {
  TreeBuilder &t = tree();
  t.big("large", 30 * kMiB, 39);
  for (int i = 0; i < 90; ++i) t.big("small" + std::to_string(i), 20000, 40);
  takeSnapshot();
  for (uint64_t at = 0; at < 30 * kMiB; at += 300000) {
    t.pattern("large", at, 1000, 41);
    t.pattern("large", at + 30000, 1000, 41);  // close to the other: one record for both
  }
  for (int i = 0; i < 90; ++i) {
    t.pattern("small" + std::to_string(i), 0, 100, 41);
    t.pattern("small" + std::to_string(i), 15000, 100, 41);
  }
  RunResult result = restore("snap", {"-B", "100"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_NE(result.out.find("195 records in 2 batches, 0 failed"), std::string::npos) << result.out;
}

uint64_t spaceLeft(const std::string &mount_point) {
  struct statvfs figures {};
  EXPECT_EQ(statvfs(mount_point.c_str(), &figures), 0);
  return figures.f_bavail * figures.f_bsize;
}

// Shared blocks take no space.
using NearlyFull = RestoreFixture;
TEST_F(NearlyFull, BigFilesAreSharedAndNotCopied) {
  TreeBuilder &t = tree();
  t.big("changed", 40 * kMiB, 32);
  t.big("deleted", 40 * kMiB + 5, 33);
  t.dir("tree");
  t.big("tree/renamed", 10 * kMiB, 34);
  takeSnapshot();
  t.pattern("changed", 0, 40 * kMiB, 35);
  t.remove("deleted");
  t.truncate("tree/renamed", 100);
  t.rename("tree/renamed", "elsewhere");
  TreeBuilder others(fs().createSubvolume("others"));
  for (int i = 0; spaceLeft(fs().mountPoint()) > 12 * kMiB; ++i) {
    others.big("filler" + std::to_string(i), 2 * kMiB, 36);
    fs().commit();
  }

  expectRestored();
  fs().destroySubvolume("others");
}

// A file that gained or lost copy-on-write keeps that state while it has data, so it must be emptied
// first. Without attributes (-x) it keeps its state, and its blocks cannot be shared.
using OtherStorage = RestoreFixture;
TEST_F(OtherStorage, ComesBackOrIsCopiedInFrames) {
  TreeBuilder &t = tree();
  t.big("f", 40 * kMiB, 37);
  t.punch("f", kMiB, 8192);  // small enough to be copied with the data around it
  t.file("back");
  t.noCow("back");
  t.pattern("back", 0, 50000, 38);
  t.file("empty now", "had data");
  const auto wanted = t.read("f");
  takeSnapshot();
  const auto change = [&] {
    for (const char *name : {"f", "back", "empty now"}) {
      t.truncate(name, 0);
      t.noCow(name, std::string(name) != "back");
    }
    t.pattern("f", 0, 39 * kMiB + 77, 38);
    t.pattern("back", 0, 50000, 39);
  };
  change();
  expectRestored();
  change();
  const RunResult result = restore("snap", {"-x"});
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_TRUE(t.read("f") == wanted);
}

}  // namespace
