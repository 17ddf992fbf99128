#include "scan/scan_pass.h"

#include <cerrno>

#include "run/run_handles.h"
#include "run/settings.h"
#include "scan/diff_table.h"
#include "scan/extent_reader.h"
#include "scan/same_file.h"
#include "unit/support/fake_kest.h"

namespace {

class ScanPass : public FakeFileset {
 protected:
  void SetUp() override {
    FakeFileset::SetUp();
    ASSERT_TRUE(allocDiffTable());
    scan.maxIno = 5000;
    scan.diffItemLimit = 100;
  }
  void TearDown() override {
    freeDiffTable();
    FakeFileset::TearDown();
  }
  int run() {
    ++settings.pass;
    testing::internal::CaptureStderr();
    const int rc = scanPass();
    shown_ = testing::internal::GetCapturedStderr();
    return rc;
  }
  std::string shown_;
};

TEST_F(ScanPass, PassesDivideTheRangeAndTheLastReachesTheEnd) {
  fakeKest.scanned = {5, 9, 12};
  scan.diffItemLimit = 2;
  ASSERT_EQ(run(), 0);
  EXPECT_FALSE(scan.finalPass);
  EXPECT_EQ(scan.scannedInoLow, 1);
  EXPECT_EQ(scan.scannedInoHigh, 9);
  EXPECT_EQ(shown_, "");
  ASSERT_EQ(run(), 0);
  EXPECT_TRUE(scan.finalPass);
  EXPECT_EQ(scan.itemCnt, 1u);
  EXPECT_EQ(scan.scannedInoLow, 10);
  EXPECT_EQ(scan.scannedInoHigh, 5000);
  EXPECT_NE(shown_.find("Pass 2, 5000 inodes have been scanned. 100% of total.\n"), std::string::npos);
}

TEST_F(ScanPass, LimitReachedOnTheLargestInodeIsTheEnd) {
  fakeKest.scanned = {7, 5000};
  scan.diffItemLimit = 2;
  ASSERT_EQ(run(), 0);
  EXPECT_TRUE(scan.finalPass);
}

TEST_F(ScanPass, ClassifiesEveryInodeButTheRoot) {
  inBoth("same", false, 3001);
  inBoth("other", false, 3002);
  fakeKest.replaced = {3002};
  makeFile(snap("deleted"));
  fakeKest.inoOf[snap("deleted")] = 3003;
  makeFile(active("new"));
  fakeKest.inoOf[active("new")] = 3004;
  makeFile(active("kind"));
  makeDir(snap("kind"));
  fakeKest.inoOf[active("kind")] = fakeKest.inoOf[snap("kind")] = 3005;
  fakeKest.scanned = {256, 3001, 3002, 3003, 3004, 3005};
  ASSERT_EQ(run(), 0);
  EXPECT_EQ(findItem(256), nullptr);
  EXPECT_EQ(scan.scannedCount, 6u);
  const int expected[] = {kDiffChanged, kDiffNew, kDiffDeleted, kDiffNew, kDiffNew};
  for (uint64_t ino = 3001; ino <= 3005; ++ino) {
    ASSERT_NE(findItem(ino), nullptr) << ino;
    EXPECT_EQ(findItem(ino)->type, expected[ino - 3001]) << ino;
  }
}

TEST_F(ScanPass, FailuresOfScanOpenAndMemoryEndTheRun) {
  fakeKest.scanError = EIO;
  EXPECT_EQ(run(), EIO);
  EXPECT_NE(traces().find("main: kest_next_inode error -1 \n"), std::string::npos);
  fakeKest.scanError = 0;
  fakeKest.scanned = {9};
  fakeKest.fault = [](const std::string &call, const std::string &) {
    return call == "iopen64" ? EACCES : 0;
  };
  EXPECT_EQ(run(), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_NE(traces().find("checkFile: ino 9, type 0, rc -1, code 1, err 13\n"), std::string::npos);
  fakeKest.fault = nullptr;
  fakeKest.scanPosition = 0;
  freeDiffTable();  // no item can be added
  EXPECT_EQ(run(), -1);
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(ScanPass, ProgressComesEveryThousandInodes) {
  for (uint64_t ino = 1001; ino <= 3500; ++ino) fakeKest.scanned.push_back(ino);
  scan.diffItemLimit = 100000;
  ASSERT_EQ(run(), 0);
  EXPECT_NE(shown_.find("Pass 1, 2000 inodes have been scanned. 40% of total.\n"), std::string::npos);
  EXPECT_NE(shown_.find("Pass 1, 3000 inodes have been scanned. 60% of total.\n"), std::string::npos);
}

TEST_F(ScanPass, ExtentReaderRefusesWhatIsNoFileAndKeepsToTheLimit) {
  makeFile(active("file"), std::string(100, 'f'));
  makeDir(active("dir"));
  Inode file = openInode(handles.activeFsP, inoOf(active("file")));
  Inode dir = openInode(handles.activeFsP, inoOf(active("dir")));
  int64_t offset = 0;
  int hole = 0;
  EXPECT_EQ(readExtent(file.get(), nullptr, nullptr, 0, &offset, 0, &hole), -1);
  EXPECT_EQ(errno, 191);
  EXPECT_EQ(readExtent(nullptr, handles.iscanP, nullptr, 0, &offset, 0, &hole), -1);
  EXPECT_EQ(errno, 192);
  EXPECT_EQ(readExtent(dir.get(), handles.iscanP, nullptr, 0, &offset, 0, &hole), -1);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(readExtent(file.get(), handles.iscanP, nullptr, 0, &offset, 0, &hole), 100);
  EXPECT_EQ(readExtent(file.get(), handles.iscanP, nullptr, 0, &offset, 1000, &hole), 100);
  EXPECT_EQ(readExtent(file.get(), handles.iscanP, nullptr, 0, &offset, 60, &hole), 60);
  char buffer[8];
  EXPECT_EQ(readExtent(file.get(), handles.iscanP, buffer, sizeof buffer, &offset, 60, &hole), 8);
  EXPECT_EQ(offset, 0);
  offset = 60;
  EXPECT_EQ(readExtent(file.get(), handles.iscanP, nullptr, 0, &offset, 60, &hole), 0);
}

}  // namespace
