#include "worker/data_copy.h"

#include <cerrno>

#include "oplist/main_lists.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/work_dir.h"
#include "run/work_file.h"
#include "unit/support/fake_kest.h"

namespace {

class DataCopy : public FakeFileset {
 protected:
  void SetUp() override {
    FakeFileset::SetUp();
    makeFile(active("f"));
    file_ = openInode(handles.activeFsP, inoOf(active("f")));
    settings.fsBlockSize = 1000;
  }
  void TearDown() override {
    file_.reset();
    FakeFileset::TearDown();
  }
  int copy(int64_t offset, int64_t length, int32_t hole = 0) {
    fakeKest.calls.clear();
    errno = 0;
    return copyToActiveFile(file_.get(), file_.get(), offset, length, &hole, false);
  }
  Inode file_;
};

TEST_F(DataCopy, CopiesBlockByBlock) {
  ASSERT_EQ(copy(500, 2300), 0);
  EXPECT_EQ(fakeKest.calls,
            (std::vector<std::string>{"ireadx 500", "iwritex 500+1000", "ireadx 1500",
                                      "iwritex 1500+1000", "ireadx 2500", "iwritex 2500+300"}));
  EXPECT_EQ(copy(500, 0), 0);
  EXPECT_TRUE(fakeKest.calls.empty());
}

TEST_F(DataCopy, HolesAreOneWriteOrFoundWhileReading) {
  ASSERT_EQ(copy(0, 1 << 30, 1), 0);
  EXPECT_EQ(fakeKest.calls, std::vector<std::string>{"punch 0+1073741824"});
  fakeKest.readHole = true;
  ASSERT_EQ(copy(0, 900), 0);
  EXPECT_EQ(fakeKest.calls, (std::vector<std::string>{"ireadx 0", "punch 0+900"}));
}

TEST_F(DataCopy, WhatIsNotCopiedWholeFails) {
  EXPECT_EQ(copy(0, -5), EINVAL);
  fakeKest.reads = {1000, 0};  // the snapshot's file ends early
  EXPECT_EQ(copy(0, 1500), EIO);
  EXPECT_NE(traces().find("copyToActiveFile: rc 5, code 4, err 5\n"), std::string::npos);
  fakeKest.ioError = EROFS;
  fakeKest.reads = {};
  fakeKest.writes = {-1};
  EXPECT_EQ(copy(0, 1500), EROFS);
  EXPECT_EQ(errno, EROFS);
  fakeKest.writes = {999};  // short, without a reason
  EXPECT_EQ(copy(0, 1500), EIO);
  fakeKest.writes = {100};
  EXPECT_EQ(copy(0, 1500, 1), EIO);
}

TEST_F(DataCopy, WholeBlocksAreSharedAndTheRestIsCopied) {
  makeFile(active("large"), std::string(10000, 'x'));
  Inode large = openInode(handles.activeFsP, inoOf(active("large")));
  std::string refused;  // the range that cannot be shared
  int err = EINVAL;
  fakeKest.fault = [&](const std::string &call, const std::string &range) {
    return call == "ishare" && (refused == "all" || refused == range) ? err : 0;
  };
  using Calls = std::vector<std::string>;
  const struct {
    int64_t offset, length;
    int32_t hole;
    std::string refused;
    Calls calls;
  } cases[] = {
      {5000, 100, 0, "", {"ishare 4096+4096"}},
      {4096, 4096, 1, "", {"ishare 4096+4096"}},
      {8192, 1808, 0, "", {"ishare 8192+1808"}},
      {0,
       10000,
       0,
       "0+10000",
       {"ishare 0+10000", "ishare 0+8192", "ireadx 8192", "iwritex 8192+1000", "ireadx 9192",
        "iwritex 9192+808"}},
      {0, 10000, 1, "0+10000", {"ishare 0+10000", "ishare 0+8192", "punch 8192+1808"}},
      {100, 900, 0, "all", {"ishare 0+4096", "ireadx 100", "iwritex 100+900"}},
      {4096, 4096, 1, "all", {"ishare 4096+4096", "punch 4096+4096"}},
  };
  const auto bring = [&](int64_t offset, int64_t length, int32_t hole) {
    fakeKest.calls.clear();
    return copyToActiveFile(large.get(), large.get(), offset, length, &hole, false);
  };
  for (const auto &one : cases) {
    refused = one.refused;
    EXPECT_EQ(bring(one.offset, one.length, one.hole), 0);
    EXPECT_EQ(fakeKest.calls, one.calls);
  }
  refused = "all";
  for (int reason : {ENOSPC, EIO}) {
    err = reason;
    EXPECT_EQ(bring(0, 900, 0), reason);
    EXPECT_EQ(errno, reason);
    EXPECT_EQ(fakeKest.calls, Calls{"ishare 0+4096"});
  }
}

}  // namespace
