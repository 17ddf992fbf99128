#include <cerrno>

#include "record/batch_line.h"
#include "record/checkpoint.h"
#include "record/record_format.h"
#include "record/side_list.h"
#include "run/progress.h"
#include "unit/support/work_area.h"

namespace {

TEST(ListRecord, IsWrittenToTheByte) {
  EXPECT_EQ(formatListRecord(7, 0x101, "/m/a b", formatOpString(3)),
            "7:0:        101:0:0:0:0:0:6!/m/a b:0!;9!3,0,0,0,0\n");
  EXPECT_EQ(formatListRecord(0, 0xfedcba9876543210, "/x", formatOpString(1, -5, 33554432, 1, 1)),
            "0:0:fedcba9876543210:0:0:0:0:0:2!/x:0!;17!1,-5,33554432,1,1\n");
  EXPECT_EQ(formatCheckpointLine(0xabcdef0123456789, "7,0,0,0,0"), "abcdef0123456789 7,0,0,0,0\n");
}

TEST(ListRecord, TruncationIsNoticed) {
  const std::string good = formatListRecord(1, 0x101, "/m/fi\nle", formatOpString(7));
  for (size_t length = 0; length <= good.size(); ++length) {
    size_t position = 0;
    ListRecordFields record;
    EXPECT_EQ(parseListRecord(good.substr(0, length), &position, &record), length == good.size());
    EXPECT_EQ(position, length == good.size() ? length : 0);
  }
}

TEST(BatchLine, PathsAreDecoded) {
  BatchLine line;
  ASSERT_TRUE(parseBatchLine("257 9 8 7,0,0,0,0  --  /m/ b \n", &line));
  EXPECT_EQ(line.opString + line.path, "7,0,0,0,0 /m/ b ");
  ASSERT_TRUE(parseBatchLine("1 0 0 x -- -- /m/n\\nt\\tb\\\\q\\q\nrest", &line));
  EXPECT_EQ(line.path, "-- /m/n\nt\tb\\qq");
}

TEST(Lines, DamageIsNoticed) {
  size_t position = 0;
  ListRecordFields record;
  BatchLine line;
  OpString op;
  uint64_t ino = 0;
  std::string_view text;
  for (const char *bad : {"1:0:101:0:0:0:0:0:-1!:0!;1!x\n", "1:0:101:0:0:0:0:0:99999999999!a:0!;1!x\n",
                          "1:1:101:0:0:0:0:0:1!a:0!;1!x\n", "1:0:zz:0:0:0:0:0:1!a:0!;1!x\n",
                          "1:0:101:0:0:0:0:0:1!a:0!;2!x\n"})
    EXPECT_FALSE(parseListRecord(bad, &position, &record)) << bad;
  for (const char *bad : {"", "1 2 3\n", "1 2 3 x\n", "1 2 3 x /m/a\n", "x 2 3 y -- /m/a\n",
                          "99999999999999999999 2 3 y -- /m/a\n"})
    EXPECT_FALSE(parseBatchLine(bad, &line)) << bad;
  const std::string longer(kOpStringMax + 1, '1');
  EXPECT_FALSE(parseBatchLine("1 2 3 " + longer + " -- /m/a\n", &line));
  for (const char *bad :
       {"", "1", "1,2,3", "1,2,3,4,", "a,0,0,0,0", "1;0;0;0;0", "99999999999,0,0,0,0"})
    EXPECT_FALSE(parseOpString(bad, &op)) << bad;
  for (const char *bad : {"", "\n", "1f\n", "1f \n", "xyz 7,0,0,0,0\n", "1f7,0,0,0,0\n"})
    EXPECT_FALSE(parseCheckpointLine(bad, &ino, &text)) << bad;
}

class SideList : public WorkArea {};

TEST_F(SideList, CountsOnlyWhatWasWritten) {
  settings.unitSize = 1;
  settings.phase = 3;
  AggregateCounter counter;
  bool opened = false;
  const int64_t count_before = opCount;
  const auto append = [&](const std::string &list) {
    return appendSideRecord(list, "list", 300, "/m/a", kOpCrDir, counter, &opened);
  };
  for (int i = 0; i < 3; ++i) EXPECT_EQ(append(at("list")), 0);
  // The record that overflows an aggregate opens the next with count 0.
  std::string expected;
  for (int number : {0, 1, 1}) expected += formatListRecord(number, 300, "/m/a", "3,0,0,0,0");
  EXPECT_EQ(get("list"), expected);
  EXPECT_EQ(append("/dev/full"), ENOSPC);
  EXPECT_TRUE(opened);
  EXPECT_EQ(append(at("no/list")), ENOENT);
  EXPECT_FALSE(opened);
  EXPECT_EQ(opCount - count_before, 3);
}

}  // namespace
