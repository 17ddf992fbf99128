#include "scan/diff_table.h"

#include <gtest/gtest.h>

namespace {

TEST(DiffTable, FindsTheFirstItemOfANumberAlsoBehindOthersOfItsBucket) {
  ASSERT_TRUE(allocDiffTable());
  addCount = freeCount = 0;
  ASSERT_EQ(addItem(5, 1, kDiffChanged), 0);
  ASSERT_EQ(addItem(512005, 1, kDiffDeleted), 0);
  ASSERT_EQ(addItem(512005, 1, kDiffNew), 0);
  for (uint64_t ino = 2000000; ino < 2050000; ++ino) ASSERT_EQ(addItem(ino, 1, kDiffMoved), 0);
  ASSERT_NE(findItem(512005), nullptr);
  EXPECT_EQ(findItem(512005)->type, kDiffDeleted);
  EXPECT_EQ(findItem(1024005), nullptr);
  for (uint64_t ino = 2000000; ino < 2050000; ++ino) ASSERT_EQ(findItem(ino)->ino, ino);
  cleanDiffTable();
  EXPECT_EQ(findItem(5), nullptr);
  EXPECT_EQ(addCount, 50003);
  EXPECT_EQ(freeCount, 50003);
  freeDiffTable();
  EXPECT_EQ(findItem(5), nullptr);
  EXPECT_EQ(addItem(5, 1, kDiffChanged), -1);
}

}  // namespace
