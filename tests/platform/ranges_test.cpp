// Changed ranges, data and holes of files, and writing them back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/kest_reader.h"
#include "support/loop_btrfs.h"
#include "support/tree_builder.h"

namespace {

using namespace kesttest;
using testsupport::LoopBtrfs;
using testsupport::TreeBuilder;

constexpr uint64_t K = 1024;

// Parameter: mount options.
class Ranges : public testing::TestWithParam<const char *> {
 protected:
  Ranges()
      : fs_("ranges", 512ull << 20, GetParam()), root_(fs_.createSubvolume("data")), tree_(root_) {}

  void snapshot() {
    fs_.snapshot("data", "snap");
    active_ = openHandle(fs_.mountPoint(), "data");
    snapshot_ = openHandle(fs_.mountPoint(), "data", "snap");
  }
  std::string changed(const std::string &path, int64_t term = 0) {
    return changedRanges(active_, openDifference(active_, snapshot_), tree_.inode(path), term);
  }
  // Copies every changed range from the snapshot, as a restore does, and sets the size.
  void copyBack(const std::string &path) {
    ino_t ino = tree_.inode(path);
    Scan difference = openDifference(active_, snapshot_), full = openFull(snapshot_);
    Inode from = openInode(snapshot_, ino), to = openInode(active_, ino);
    std::string buffer(256 * K, 'z');
    int64_t at = 0, length;
    int hole;
    while ((length = kest_ireadx(to.get(), difference.get(), nullptr, 0, &at, 0, &hole)) > 0) {
      for (int64_t end = at + length; at < end;) {
        int part_hole;
        int64_t want = std::min<int64_t>(end - at, buffer.size());
        int64_t n = kest_ireadx(from.get(), full.get(), buffer.data(), want, &at, 0, &part_hole);
        ASSERT_GT(n, 0);
        ASSERT_EQ(hole, part_hole) << path << " at " << at;
        ASSERT_EQ(n, kest_iwritex(to.get(), part_hole ? nullptr : buffer.data(), n, at, part_hole));
        at += n;
      }
    }
    ASSERT_EQ(0, length);
  }
  std::string snapshotBytes(const std::string &path) {
    return TreeBuilder(fs_.path("snap")).read(path);
  }

  LoopBtrfs fs_;
  std::string root_;
  TreeBuilder tree_;
  Handle active_, snapshot_;
};

INSTANTIATE_TEST_SUITE_P(Mounts, Ranges,
                         testing::Values("", "compress=zstd", "compress-force=lzo", "nodatacow"),
                         [](const auto &one) {
                           std::string name = one.param[0] == 0 ? "plain" : one.param;
                           for (char &c : name)
                             if (!isalnum(static_cast<unsigned char>(c))) c = '_';
                           return name;
                         });

TEST_P(Ranges, FindsEveryKindOfChangeAndNothingElse) {
  auto big = [&](const std::string &path) { tree_.big(path, 1024 * K, 7); };
  for (const char *path : {"same", "written", "punched", "truncated", "grown", "shrunk and grown",
                           "allocated", "mapped", "shared", "edges"})
    big(path);
  tree_.file("nocow");
  tree_.noCow("nocow");
  tree_.pattern("nocow", 0, 512 * K, 3);
  tree_.file("squeezed");
  if (std::string(GetParam()) != "nodatacow") tree_.compress("squeezed");  // excludes the other
  tree_.write("squeezed", 0, std::string(512 * K, 'c'));
  tree_.sparse("sparse", 1024 * K, {256 * K, 768 * K});
  tree_.file("prealloc");
  tree_.preallocate("prealloc", 0, 256 * K);
  tree_.file("tiny", "tiny");
  tree_.file("tiny same", "tiny");
  tree_.file("tiny grown", "tiny");
  snapshot();

  tree_.chmod("same", 0600);
  tree_.chmod("tiny same", 0600);
  tree_.pattern("written", 64 * K, 8 * K, 1);
  tree_.pattern("written", 512 * K, 4 * K, 1);
  tree_.punch("punched", 128 * K, 64 * K);
  tree_.truncate("truncated", 100 * K);
  tree_.pattern("grown", 1024 * K, 100 * K, 1);
  tree_.truncate("shrunk and grown", 512 * K);
  tree_.truncate("shrunk and grown", 1024 * K);
  tree_.punch("allocated", 256 * K, 64 * K);
  tree_.preallocate("allocated", 256 * K, 64 * K, true);
  tree_.writeMapped("mapped", 300 * K, std::string(4 * K, 'm'));
  tree_.write("edges", 0, "x");
  tree_.write("edges", 1024 * K - 1, "x");
  tree_.pattern("nocow", 128 * K, 4 * K, 9);
  tree_.write("squeezed", 256 * K, std::string(128 * K, 'd'));
  tree_.pattern("sparse", 512 * K, 4 * K, 1);
  tree_.punch("sparse", 256 * K, 4 * K);
  tree_.pattern("prealloc", 128 * K, 4 * K, 1);
  tree_.write("tiny", 1, "T");
  tree_.append("tiny grown", std::string(8 * K, 'g'));

  EXPECT_EQ("", changed("same"));
  EXPECT_EQ("", changed("tiny same"));
  EXPECT_EQ("", changed("truncated"));
  EXPECT_EQ("", changed("grown"));
  EXPECT_EQ("65536+8192 524288+4096", changed("written"));
  EXPECT_EQ("65536+4096", changed("written", 68 * K));
  EXPECT_EQ("131072+65536", changed("punched"));
  EXPECT_EQ("524288+524288", changed("shrunk and grown"));
  EXPECT_EQ("262144+65536", changed("allocated"));
  EXPECT_EQ("307200+4096", changed("mapped"));
  EXPECT_EQ("0+4096 1044480+4096", changed("edges"));
  EXPECT_EQ("131072+4096", changed("nocow"));
  EXPECT_EQ("262144+131072", changed("squeezed"));
  EXPECT_EQ("262144+4096 524288+4096(hole)", changed("sparse"));
  EXPECT_EQ("131072+4096(hole)", changed("prealloc"));
  EXPECT_EQ("0+4", changed("tiny"));
  EXPECT_EQ("0+4", changed("tiny grown"));  // inline data became an extent

  for (const char *path : {"written", "punched", "shrunk and grown", "allocated", "mapped", "edges",
                           "nocow", "squeezed", "sparse", "prealloc", "tiny"}) {
    copyBack(path);
    EXPECT_EQ(snapshotBytes(path), tree_.read(path)) << path;
  }
  fs_.commit();
  EXPECT_EQ(stretches(snapshot_, openFull(snapshot_), TreeBuilder(fs_.path("snap")).inode("sparse")),
            stretches(active_, openFull(active_), tree_.inode("sparse")));
}

TEST_P(Ranges, WritesHolesWithoutTouchingHoles) {
  tree_.big("data", 256 * K, 1);
  tree_.file("empty");
  tree_.file("cap", "program");
  tree_.sparse("holes", 512 * K, {0, 256 * K});
  std::string capability(
      "\x01\x00\x00\x02\x00\x20\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00", 20);
  tree_.setXattr("cap", "security.capability", capability);
  tree_.file("fixed", "fixed");
  tree_.file("growing", "growing");
  tree_.immutable("fixed");
  tree_.appendOnly("growing");
  snapshot();
  auto write = [&](const std::string &path, const char *bytes, int64_t length, int64_t offset) {
    Inode file = openInode(active_, tree_.inode(path));
    return kest_iwritex(file.get(), bytes, length, offset, bytes == nullptr);
  };
  ASSERT_EQ(64 * K, write("data", nullptr, 64 * K, 32 * K));
  ASSERT_EQ(64 * K, write("data", nullptr, 64 * K, 224 * K));  // to beyond the end
  EXPECT_EQ("0+32768 32768+65536(hole) 98304+131072 229376+65536(hole)",
            stretches(active_, openFull(active_), tree_.inode("data")));
  // The last block of a file goes whole, whatever the size.
  ASSERT_EQ(5000, write("empty", std::string(5000, 'e').c_str(), 5000, 0));
  ASSERT_EQ(5000, write("empty", nullptr, 5000, 0));
  EXPECT_EQ("0+5000(hole)", stretches(active_, openFull(active_), tree_.inode("empty")));
  EXPECT_EQ(std::string(5000, '\0'), tree_.read("empty"));
  // A hole that is one already costs no change at all.
  fs_.commit();
  struct stat before, after;
  stat((root_ + "/holes").c_str(), &before);
  ASSERT_EQ(128 * K, write("holes", nullptr, 128 * K, 64 * K));
  stat((root_ + "/holes").c_str(), &after);
  EXPECT_EQ(before.st_ctim.tv_nsec, after.st_ctim.tv_nsec);

  ASSERT_EQ(3, write("cap", "PRO", 3, 0));
  char value[64];
  EXPECT_EQ(20, lgetxattr((root_ + "/cap").c_str(), "security.capability", value, sizeof value));
  EXPECT_EQ("PROgram", tree_.read("cap"));
  EXPECT_EQ(-1, write("fixed", "x", 1, 0));
  EXPECT_EQ(EROFS, errno);
  EXPECT_EQ(-1, write("growing", "x", 1, 0));
  EXPECT_EQ(EROFS, errno);
  Inode frozen = openInode(snapshot_, tree_.inode("cap"));
  EXPECT_EQ(-1, kest_iwritex(frozen.get(), "x", 1, 0, 0));
  EXPECT_EQ(EROFS, errno);
}

TEST_P(Ranges, ReadsOneKindAtATime) {
  tree_.sparse("islands", 300 * K + 5, {64 * K, 128 * K});
  tree_.symlink(std::string(3000, 'l'), "pointer");
  tree_.fifo("pipe");
  snapshot();
  ino_t ino = tree_.inode("islands");
  Scan full = openFull(snapshot_);
  Inode file = openInode(snapshot_, ino);
  std::string rebuilt, content = tree_.read("islands");
  char buffer[10000];
  int64_t at = 0, n;
  int hole, holes = 0;
  while ((n = kest_ireadx(file.get(), full.get(), buffer, sizeof buffer, &at, 0, &hole)) > 0) {
    rebuilt += hole ? std::string(n, '\0') : std::string(buffer, n);
    holes += hole;
    at += n;
  }
  EXPECT_EQ(0, n);
  EXPECT_GT(holes, 2);
  EXPECT_EQ(content, rebuilt);
  int64_t offset = 0;
  Inode pointer = openInode(snapshot_, tree_.inode("pointer"));
  EXPECT_EQ(3000, kest_iread(pointer.get(), buffer, sizeof buffer, &offset));
  EXPECT_EQ(std::string(3000, 'l'), std::string(buffer, 3000));
  EXPECT_EQ(0, kest_iread(pointer.get(), buffer, sizeof buffer, &offset));
  Inode pipe = openInode(active_, tree_.inode("pipe"));  // does not wait for a writer
  EXPECT_TRUE(S_ISFIFO(pipe->if_mode));
}

// One file of many pieces: the comparison is made once, not once a piece.
TEST(ManyRanges, TakeOneComparison) {
  LoopBtrfs fs("many", 512ull << 20);
  TreeBuilder tree(fs.createSubvolume("data"));
  tree.big("file", 40 * K * K, 1);
  fs.snapshot("data", "snap");
  Handle active = openHandle(fs.mountPoint(), "data"),
         snapshot = openHandle(fs.mountPoint(), "data", "snap");
  int fd = open((tree.root() + "/file").c_str(), O_WRONLY | O_CLOEXEC);
  std::string expected;
  for (int64_t at = 0; at < static_cast<int64_t>(40 * K * K); at += 8 * K) {
    ASSERT_EQ(4096, pwrite(fd, std::string(4096, 'w').c_str(), 4096, at));
    expected += (at ? " " : "") + std::to_string(at) + "+4096";
  }
  close(fd);
  Scan scan = openDifference(active, snapshot);
  timespec start, end;
  EXPECT_NE("", inodesOf(scan));
  clock_gettime(CLOCK_MONOTONIC, &start);
  EXPECT_EQ(expected, changedRanges(active, scan, tree.inode("file")));
  clock_gettime(CLOCK_MONOTONIC, &end);
  double ms = (end.tv_sec - start.tv_sec) * 1e3 + (end.tv_nsec - start.tv_nsec) / 1e6;
  RecordProperty("milliseconds", std::to_string(ms));
  EXPECT_LT(ms, 2000);
}

}  // namespace
