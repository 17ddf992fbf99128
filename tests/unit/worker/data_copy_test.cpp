// Which blocks are shared, which copied, and in which pieces. This test replaces the library's calls.
#include "worker/data_copy.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "run/settings.h"

namespace {

std::string calls;    // "share 0+4096, "
std::string refused;  // the range that cannot be shared, or "all"
int refusedWith = EINVAL;
bool holes = false;  // whether reads find holes
// Results of the next calls; after these, calls do all that is requested.
std::vector<int64_t> reads, writes;

void note(const char *call, int64_t offset, int64_t length) {
  calls += call + std::to_string(offset) + "+" + std::to_string(length) + ", ";
}

int64_t answer(std::vector<int64_t> &answers, int64_t size) {
  if (answers.empty()) return size;
  const int64_t next = answers.front();
  answers.erase(answers.begin());
  if (next < 0) errno = EROFS;
  return next;
}

}  // namespace

int64_t kest_ireadx(kest_ifile_t *, kest_iscan_t *, void *buf, int64_t size, int64_t *at, int64_t term,
                    int *hole) {
  *hole = holes;
  if (buf == nullptr) {
    note("look ", *at, term - *at);
    return term - *at;
  }
  note("read ", *at, size);
  memset(buf, 'x', static_cast<size_t>(size));
  return answer(reads, size);
}

int64_t kest_iwritex(kest_ifile_t *, const void *buf, int64_t size, int64_t offset, int hole) {
  note(hole && buf == nullptr ? "punch " : "write ", offset, size);
  return answer(writes, size);
}

int kest_ishare(kest_ifile_t *, kest_ifile_t *, int64_t offset, int64_t size) {
  note("share ", offset, size);
  if (refused != "all" && !calls.ends_with("share " + refused + ", ")) return 0;
  errno = refusedWith;
  return -1;
}

namespace {

class DataCopy : public ::testing::Test {
 protected:
  void SetUp() override {
    settings = Settings();
    settings.fsBlockSize = 1000;
    file_.if_size = 10000;
    refused = "all";
    refusedWith = EINVAL;
  }
  int copy(int64_t offset, int64_t length, int32_t hole = 0) {
    calls.clear();
    errno = 0;
    const Operation range{kOpRestoreDiffFile, offset, static_cast<uint64_t>(length), hole};
    const Result result = copyToActiveFile(&file_, &file_, range);
    EXPECT_EQ(result.err, result.rc);
    return result.rc;
  }
  kest_ifile_t file_{};
};

TEST_F(DataCopy, WholeBlocksAreSharedAndTheRestIsCopied) {
  const struct {
    int64_t offset, length;
    int32_t hole;
    std::string refused, calls;
  } cases[] = {
      {5000, 0, 0, "", ""},
      {5000, 100, 0, "", "share 4096+4096, "},
      {4096, 4096, 1, "", "share 4096+4096, "},
      {8192, 1808, 0, "", "share 8192+1808, "},
      // A partial block cannot be shared if the other file continues after it.
      {0, 10000, 1, "0+10000", "share 0+10000, share 0+8192, punch 8192+1808, "},
      {5000, 5000, 0, "4096+5904",
       "share 4096+5904, share 4096+4096, look 8192+1808, read 8192+1000, write 8192+1000, read "
       "9192+808, "
       "write 9192+808, "},
      {4096, 4096, 1, "all", "share 4096+4096, punch 4096+4096, "},
      {500, 1300, 0, "all",
       "share 0+4096, look 500+1300, read 500+1000, write 500+1000, read 1500+300, write 1500+300, "},
      // Beyond the end of the snapshot's file.
      {9500, 1000, 0, "", "look 9500+1000, read 9500+1000, write 9500+1000, "},
  };
  for (const auto &one : cases) {
    refused = one.refused;
    EXPECT_EQ(copy(one.offset, one.length, one.hole), 0);
    EXPECT_EQ(calls, one.calls);
  }
  holes = true;
  refused = "all";
  EXPECT_EQ(copy(0, 9000), 0);
  EXPECT_EQ(calls, "share 0+10000, share 0+8192, look 0+9000, punch 0+9000, ") << "a hole is one piece";
  holes = false;
}

TEST_F(DataCopy, WhatIsNotCopiedWholeFails) {
  for (int reason : {ENOSPC, EIO}) {
    refusedWith = reason;
    EXPECT_EQ(copy(0, 900), reason);
    EXPECT_EQ(calls, "share 0+4096, ");
  }
  refusedWith = EINVAL;
  const struct {
    const char *name;
    int64_t length;
    int32_t hole;
    std::vector<int64_t> reads, writes;
    int rc;
  } cases[] = {
      {"negative length", -5, 0, {}, {}, EINVAL}, {"early end", 1500, 0, {1000, 0}, {}, EIO},
      {"read error", 1500, 0, {-1}, {}, EROFS},   {"write error", 1500, 0, {}, {-1}, EROFS},
      {"short write", 1500, 0, {}, {999}, EIO},   {"short hole", 1500, 1, {}, {100}, EIO},
  };
  for (const auto &one : cases) {
    reads = one.reads;
    writes = one.writes;
    EXPECT_EQ(copy(0, one.length, one.hole), one.rc) << one.name;
    EXPECT_TRUE(reads.empty() && writes.empty()) << one.name;
  }
}

}  // namespace
