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

TEST_F(DataCopy, FileThatEndsBeforeItsSizeIsNotListed) {
  const std::string path = active("g");
  makeFile(snap("g"), std::string(1000, 'x'));
  cpListP = WorkFile::open(workPath(kOpListCopy), WorkFile::Mode::kTruncate);
  cpDeltaP = WorkFile::open(workPath(kOpListDelta), WorkFile::Mode::kTruncate);
  fakeKest.reads = {500, 500};
  EXPECT_EQ(ListRecord(path, inoOf(snap("g")), kOpRestoreDelFile, 0), 0);
  fakeKest.reads = {500, 0};
  EXPECT_NE(ListRecord(path, inoOf(snap("g")), kOpRestoreDelFile, 0), 0);
  EXPECT_EQ(errno, EIO);
  cpListP.reset();
  cpDeltaP.reset();
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

TEST_F(DataCopy, ClonesShareWholeBlocksAndAreCopiedOnlyWhereThatIsRefused) {
  makeFile(active("large"), std::string(10000, 'x'));
  Inode large = openInode(handles.activeFsP, inoOf(active("large")));
  const auto share = [&](int64_t offset, int64_t length, int32_t hole) {
    fakeKest.calls.clear();
    return copyToActiveFile(large.get(), large.get(), offset, length, &hole, true);
  };
  EXPECT_EQ(share(5000, 100, 0), 0);
  EXPECT_EQ(fakeKest.calls, std::vector<std::string>{"ishare 4096+4096"});
  EXPECT_EQ(share(4096, 4096, 1), 0);
  EXPECT_EQ(fakeKest.calls, std::vector<std::string>{"ishare 4096+4096"});
  EXPECT_EQ(share(8192, 1808, 0), 0);
  EXPECT_EQ(fakeKest.calls, std::vector<std::string>{"ishare 8192+1808"});
  int err = EINVAL;
  fakeKest.fault = [&](const std::string &call, const std::string &) {
    return call == "ishare" ? err : 0;
  };
  EXPECT_EQ(share(0, 900, 0), 0);
  EXPECT_EQ(fakeKest.count("iwritex"), 1u);
  err = ENOSPC;
  EXPECT_EQ(share(0, 900, 0), ENOSPC);
  EXPECT_EQ(fakeKest.count("iwritex"), 0u);
}

}  // namespace
