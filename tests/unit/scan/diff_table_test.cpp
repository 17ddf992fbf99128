#include "scan/diff_table.h"

#include "run/settings.h"
#include "unit/support/fake_kest.h"

namespace {

class DiffTable : public FakeFileset {
 protected:
  void SetUp() override {
    FakeFileset::SetUp();
    addCount = freeCount = 0;
    ASSERT_TRUE(allocDiffTable());
  }
  void TearDown() override {
    freeDiffTable();
    FakeFileset::TearDown();
  }
};

TEST_F(DiffTable, FindsTheFirstItemOfANumberAlsoBehindOthersOfItsBucket) {
  EXPECT_EQ(findItem(5), nullptr);
  ASSERT_EQ(addItem(5, 1, kDiffChanged), 0);
  ASSERT_EQ(addItem(512005, 1, kDiffDeleted), 0);
  ASSERT_EQ(addItem(512005, 1, kDiffNew), 0);
  ASSERT_NE(findItem(512005), nullptr);
  EXPECT_EQ(findItem(512005)->type, kDiffDeleted);
  EXPECT_EQ(findItem(1024005), nullptr);
  cleanDiffTable();
  EXPECT_EQ(findItem(5), nullptr);
  EXPECT_EQ(addCount, 3);
  EXPECT_EQ(freeCount, 3);
}

TEST_F(DiffTable, DumpsAppendInBucketOrder) {
  dumpDiffTable();
  const std::string path = settings.shareDir + "/diffTable";
  ASSERT_EQ(access(path.c_str(), F_OK), 0);
  addItem(512005, 1, kDiffMoved);
  addItem(255, 1, kDiffChanged | kDiffMoved);
  dumpDiffTable();
  EXPECT_EQ(read(path), "ino 512005 0x7D005 type 4\nino 255 0xFF type 6\n");
}

TEST_F(DiffTable, HoldsNothingWithoutBuckets) {
  addItem(5, 1, kDiffChanged);
  freeDiffTable();
  EXPECT_FALSE(haveDiffTable());
  EXPECT_EQ(findItem(5), nullptr);
  EXPECT_EQ(addItem(5, 1, kDiffChanged), -1);
  EXPECT_EQ(freeCount, 1);
}

}  // namespace
