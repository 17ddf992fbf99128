#include "scan/diff_table.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(DiffTable, FindsTheFirstItemOfANumberAlsoBehindOthersOfItsBucket) {
  ASSERT_TRUE(allocDiffTable());
  addCount = freeCount = 0;
  ASSERT_TRUE(addItem(5, kDiffChanged));
  ASSERT_TRUE(addItem(512005, kDiffDeleted));
  ASSERT_TRUE(addItem(512005, kDiffNew));
  for (uint64_t ino = 2000000; ino < 2050000; ++ino) ASSERT_TRUE(addItem(ino, kDiffMoved));
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
  EXPECT_EQ(addItem(5, kDiffChanged).err, ENOMEM);
}

}  // namespace
