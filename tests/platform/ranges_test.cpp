// Changed ranges, data and holes of files, and writing them back.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include "platform/kest_reader.h"
#include "support/descriptor.h"

namespace {

using namespace kesttest;

constexpr uint64_t K = 1024;

class Ranges : public LibraryTest {
 protected:
  std::string changed(const std::string &path, int64_t term = 0) {
    return ranges(active_, openDifference(active_, snapshot_), inode(path), term);
  }
  int64_t write(const std::string &path, const char *bytes, int64_t length, int64_t offset) {
    return kest_iwritex(open(path).get(), bytes, length, offset, bytes == nullptr);
  }
};

TEST_F(Ranges, ExactlyWhatChanged) {
  for (const char *name : {"same", "written", "truncated", "grown", "shrunk and grown", "allocated",
                           "mapped", "edges", "border"})
    tree_->big(name, 1024 * K, 7);
  tree_->file("nocow");
  tree_->noCow("nocow");
  tree_->pattern("nocow", 0, 512 * K, 3);
  tree_->file("squeezed");
  tree_->compress("squeezed");
  tree_->write("squeezed", 0, std::string(512 * K, 'c'));
  tree_->sparse("sparse", 1024 * K, {256 * K, 768 * K});
  tree_->punch("border", 256 * K, 4 * K);
  tree_->file("reserved");
  tree_->preallocate("reserved", 0, 256 * K);
  for (const char *name : {"tiny", "tiny same", "tiny grown"}) tree_->file(name, "tiny");
  snapshot();

  tree_->chmod("same", 0600);
  tree_->chmod("tiny same", 0600);
  tree_->pattern("written", 64 * K, 8 * K, 1);
  tree_->pattern("written", 512 * K, 4 * K, 1);
  tree_->truncate("truncated", 100 * K);
  tree_->pattern("grown", 1024 * K, 100 * K, 1);
  tree_->truncate("shrunk and grown", 512 * K);
  tree_->truncate("shrunk and grown", 1024 * K);
  tree_->punch("allocated", 256 * K, 64 * K);
  tree_->preallocate("allocated", 256 * K, 64 * K, true);
  tree_->writeMapped("mapped", 300 * K, std::string(4 * K, 'm'));
  tree_->write("edges", 0, "x");
  tree_->write("edges", 1024 * K - 1, "x");
  tree_->pattern("nocow", 128 * K, 4 * K, 9);
  tree_->write("squeezed", 256 * K, std::string(128 * K, 'd'));
  tree_->pattern("sparse", 512 * K, 4 * K, 1);
  tree_->punch("sparse", 256 * K, 4 * K);
  tree_->pattern("border", 252 * K, 12 * K, 1);
  tree_->pattern("reserved", 128 * K, 4 * K, 1);
  tree_->write("tiny", 1, "T");
  tree_->append("tiny grown", std::string(8 * K, 'g'));

  const std::pair<const char *, const char *> expected[] = {
      {"same", ""},
      {"tiny same", ""},
      {"truncated", ""},
      {"grown", ""},
      {"written", "65536+8192 524288+4096"},
      {"shrunk and grown", "524288+524288"},
      {"allocated", "262144+65536"},
      {"mapped", "307200+4096"},
      {"edges", "0+4096 1044480+4096"},
      {"nocow", "131072+4096"},
      {"squeezed", "262144+131072"},
      {"sparse", "262144+4096 524288+4096(hole)"},
      {"border", "258048+4096 262144+4096(hole) 266240+4096"},
      {"reserved", "131072+4096(hole)"},
      {"tiny", "0+4"},
      {"tiny grown", "0+4"}};  // inline data became an extent
  for (const auto &[name, list] : expected) EXPECT_EQ(list, changed(name)) << name;
  EXPECT_EQ("65536+4096", changed("written", 68 * K));
}

TEST_F(Ranges, WritesHolesWithoutTouchingHoles) {
  tree_->big("data", 256 * K, 1);
  tree_->file("empty");
  tree_->file("cap", "program");
  tree_->sparse("holes", 512 * K, {0, 256 * K});
  tree_->setXattr("cap", "security.capability", kCapability);
  for (const char *name : {"fixed", "growing"}) tree_->file(name, name);
  tree_->immutable("fixed");
  tree_->appendOnly("growing");
  snapshot();
  ASSERT_EQ(64 * K, write("data", nullptr, 64 * K, 32 * K));
  ASSERT_EQ(64 * K, write("data", nullptr, 64 * K, 224 * K));  // beyond the end
  EXPECT_EQ("0+32768 32768+65536(hole) 98304+131072 229376+65536(hole)",
            ranges(active_, openFull(active_), inode("data")));
  // The last block of a file becomes a hole as a whole, whatever the size.
  ASSERT_EQ(5000, write("empty", std::string(5000, 'e').c_str(), 5000, 0));
  ASSERT_EQ(5000, write("empty", nullptr, 5000, 0));
  EXPECT_EQ("0+5000(hole)", ranges(active_, openFull(active_), inode("empty")));
  // A range that is a hole already costs no change.
  struct stat before = statOf(at("holes"));
  usleep(10000);
  ASSERT_EQ(128 * K, write("holes", nullptr, 128 * K, 64 * K));
  EXPECT_EQ(before.st_ctim.tv_nsec, statOf(at("holes")).st_ctim.tv_nsec);

  ASSERT_EQ(3, write("cap", "PRO", 3, 0));
  EXPECT_EQ(kCapability, xattrsOf(at("cap"))["security.capability"]);
  EXPECT_EQ("PROgram", tree_->read("cap"));
  EXPECT_FAILS(EROFS, write("fixed", "x", 1, 0));
  EXPECT_FAILS(EROFS, write("growing", "x", 1, 0));
  EXPECT_FAILS(EROFS, kest_iwritex(openInode(snapshot_, inode("cap")).get(), "x", 1, 0, 0));
}

// A file of many pieces: the comparison is made once, not once for each piece.
TEST_F(Ranges, OfManyPiecesTakeOneComparison) {
  constexpr int kPieces = 5120;
  tree_->big("file", 8 * K * kPieces, 1);
  snapshot();
  std::string expected;
  for (uint64_t i = 0; i < kPieces; i++) {
    tree_->pattern("file", i * 8 * K, 4 * K, 2);
    expected += (i ? " " : "") + std::to_string(i * 8 * K) + "+4096";
  }
  Scan scan = openDifference(active_, snapshot_);
  timespec start, end;
  EXPECT_NE("", inodesOf(scan));
  clock_gettime(CLOCK_MONOTONIC, &start);
  EXPECT_EQ(expected, ranges(active_, scan, inode("file")));
  clock_gettime(CLOCK_MONOTONIC, &end);
  EXPECT_LT((end.tv_sec - start.tv_sec) * 1e3 + (end.tv_nsec - start.tv_nsec) / 1e6, 2000);
}

}  // namespace
