// Contents of files: ranges, holes, sizes, and how the blocks are stored.
#include <sys/statvfs.h>

#include <fstream>

#include "scenario/restore_fixture.h"

using namespace scenario;

namespace {

constexpr uint64_t kMiB = 1 << 20;

const HistoryCase kCases[] = {
    {"ChangedInPlace",
     [](TreeBuilder &t) {
       t.big("big", 6 * kMiB, 1);
       t.big("small", 100, 2);
     },
     [](TreeBuilder &t) {
       t.write("big", 3 * kMiB + 17, "a few bytes");
       t.write("big", 0, "first");
       t.write("big", 6 * kMiB - 4, "last");
       t.write("small", 50, "middle");
     }},
    {"SizesChanged",
     [](TreeBuilder &t) {
       for (const char *name : {"grown", "shrunk", "shrunk odd", "to nothing", "replaced longer"})
         t.big(name, 300000, 3);
       t.file("from nothing");
     },
     [](TreeBuilder &t) {
       t.pattern("grown", 300000, 200001, 4);
       t.truncate("shrunk", 131072);
       t.truncate("shrunk odd", 77777);
       t.truncate("to nothing", 0);
       t.pattern("from nothing", 0, 500000, 5);
       t.truncate("replaced longer", 0);
       t.pattern("replaced longer", 0, kMiB, 6);
     }},
    {"Holes",
     [](TreeBuilder &t) {
       t.big("punched", 400000, 7);
       t.sparse("filled", 2 * kMiB, {0, 512 * 1024});
       t.sparse("tail", 2 * kMiB + 1, {0});
       t.sparse("all hole", 2 * kMiB, {});
       t.big("now sparse tail", 10000, 8);
       t.file("zeros", std::string(32768, '\0'));
     },
     [](TreeBuilder &t) {
       t.punch("punched", 65536, 131072);
       t.punch("punched", 300000, 50);
       t.pattern("filled", kMiB, 10000, 9);
       t.pattern("tail", kMiB, 4096, 10);
       t.truncate("tail", 3 * kMiB);
       t.pattern("all hole", 8192, 1, 11);
       t.truncate("now sparse tail", kMiB);
       t.punch("zeros", 4096, 8192);
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
     }},
    {"Preallocated",
     [](TreeBuilder &t) {
       t.file("reserved");
       t.preallocate("reserved", 0, kMiB);
       t.pattern("reserved", 65536, 8192, 13);
       t.big("later reserved", 10000, 14);
       t.file("deleted");
       t.preallocate("deleted", 0, kMiB);
       t.pattern("deleted", 0, 100, 15);
     },
     [](TreeBuilder &t) {
       t.pattern("reserved", 0, 100000, 16);
       t.preallocate("later reserved", 10000, kMiB);
       t.remove("deleted");
     }},
    {"InlineFiles",
     [](TreeBuilder &t) {
       t.big("a", 1, 17);
       t.big("b", 2047, 18);
       t.big("c", 2048, 19);
       t.big("d", 4095, 20);
       t.big("e", 500, 21);
       t.big("deleted", 1000, 22);
     },
     [](TreeBuilder &t) {
       t.write("a", 0, "X");
       t.pattern("b", 2047, 5000, 23);
       t.truncate("c", 10);
       t.truncate("d", 1 * kMiB);
       t.write("e", 499, "X");
       t.remove("deleted");
     }},
    {"CompressedAndWithoutCopyOnWrite",
     [](TreeBuilder &t) {
       for (const char *name :
            {"compressed", "nocow", "nocow deleted", "compressed deleted", "plain"}) {
         t.file(name);
         if (std::string(name).rfind("nocow", 0) == 0) t.noCow(name);
         if (std::string(name).rfind("compressed", 0) == 0) t.compress(name);
         for (int i = 0; i < 40; ++i)
           t.append(name, std::string(10000, static_cast<char>('a' + i % 7)));
       }
     },
     [](TreeBuilder &t) {
       for (const char *name : {"compressed", "nocow"}) t.write(name, 200000, "changed in place");
       t.remove("nocow deleted");
       t.remove("compressed deleted");
       t.remove("plain");
       t.file("plain");
       t.noCow("plain");
       t.append("plain", "a file that cannot share blocks stands at the name");
     }},
    {"ChangedAndRenamed",
     [](TreeBuilder &t) {
       t.dirs("d/e");
       for (const char *name : {"renamed", "d/moved in", "d/e/dir moved", "swapped one", "swapped two"})
         t.big(name, 200000, 24);
     },
     [](TreeBuilder &t) {
       t.write("renamed", 100000, "changed");
       t.rename("renamed", "other name");
       t.dir("new");
       t.truncate("d/moved in", 1000);
       t.rename("d/moved in", "new/in");
       t.write("d/e/dir moved", 0, "changed");
       t.rename("d/e", "e");
       t.write("swapped one", 5, "only one of them changes");
       t.exchange("swapped one", "swapped two");
     }},
    {"MappedWriteNotFlushed", [](TreeBuilder &t) { t.big("mapped", 200000, 25); },
     [](TreeBuilder &t) { t.writeMapped("mapped", 123456, "written through the mapping"); }},
    {"UnflushedWrites", [](TreeBuilder &t) { t.big("f", 100000, 26); },
     [](TreeBuilder &t) {
       t.pattern("f", 50000, 500000, 27);
       t.big("new", 300000, 28);
     }},
    {"SharedBlocks", [](TreeBuilder &t) { t.big("one", kMiB, 29); },
     [](TreeBuilder &t) {
       t.reflink("one", "copy");
       t.write("one", 1000, "changed");
       t.write("copy", 500000, "changed");
     }},
    {"LargerThanOneRecord", [](TreeBuilder &t) { t.big("large", 70 * kMiB, 30); },
     [](TreeBuilder &t) {
       for (uint64_t at = 0; at < 70 * kMiB; at += 7 * kMiB) t.pattern("large", at, 5000, 31);
       t.punch("large", 33 * kMiB, 2 * kMiB);
     }},
};

TEST_P(RestoreTable, Data) {
  runCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Data, RestoreTable, ::testing::ValuesIn(kCases), caseName);

// Written and written again within one tick of the clock, so that times and size stay the same.
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

// Everything compressed by the mount.
using CompressedMount = RestoreFixture;
TEST_F(CompressedMount, ChangedShrunkAndDeletedFiles) {
  remount("compress-force=zstd");
  TreeBuilder &t = tree();
  for (const char *name : {"changed", "shrunk", "deleted"}) t.file(name, std::string(600000, 'z'));
  takeSnapshot();
  t.write("changed", 300000, "changed");
  t.truncate("shrunk", 123);
  t.remove("deleted");
  expectRestored();
  remount();
}

using Batches = RestoreFixture;
TEST_F(Batches, RangesFillThem) {
  TreeBuilder &t = tree();
  t.big("large", 30 * kMiB, 39);
  for (int i = 0; i < 90; ++i) t.big("small" + std::to_string(i), 20000, 40);
  takeSnapshot();
  for (uint64_t at = 0; at < 30 * kMiB; at += 300000) {
    t.pattern("large", at, 1000, 41);
    t.pattern("large", at + 30000, 1000, 41);  // near: one record for both
  }
  for (int i = 0; i < 90; ++i) {
    t.pattern("small" + std::to_string(i), 0, 100, 41);
    t.pattern("small" + std::to_string(i), 15000, 100, 41);
  }
  RunResult result = restore();
  EXPECT_EQ(result.exitStatus, 0) << result.describe();
  EXPECT_NE(result.out.find("195 records in 2 batches, 0 failed"), std::string::npos) << result.out;
}

// Bytes written so far to the device that holds the fileset.
uint64_t bytesWritten(const std::string &mount_point) {
  std::ifstream mounts("/proc/self/mounts");
  std::string device, point, rest;
  while (mounts >> device >> point && std::getline(mounts, rest) && point != mount_point) {
  }
  std::ifstream figures("/sys/block" + device.substr(device.rfind('/')) + "/stat");
  uint64_t sectors = 0;
  for (int field = 0; field < 7; ++field) figures >> sectors;
  EXPECT_TRUE(figures) << device;
  return sectors * 512;
}

uint64_t spaceLeft(const std::string &mount_point) {
  struct statvfs figures {};
  EXPECT_EQ(statvfs(mount_point.c_str(), &figures), 0);
  return figures.f_bavail * figures.f_bsize;
}

// What is shared takes no space and is not written.
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

  const uint64_t before = bytesWritten(fs().mountPoint());
  expectRestored();
  fs().commit();
  EXPECT_LT(bytesWritten(fs().mountPoint()) - before, 8 * kMiB);
  fs().destroySubvolume("others");
}

// A file that has become one without copy-on-write, or ceased to be one, keeps that while it has data:
// it is emptied first. Where attributes are not wanted it stays what it is, and nothing can be shared.
using OtherStorage = RestoreFixture;
TEST_F(OtherStorage, ComesBackOrIsCopiedInFrames) {
  TreeBuilder &t = tree();
  t.big("f", 40 * kMiB, 37);
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
