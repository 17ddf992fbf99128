#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <filesystem>

#include "record/aggregate.h"
#include "record/batch_line.h"
#include "record/checkpoint.h"
#include "record/record_format.h"
#include "record/side_list.h"
#include "run/progress.h"
#include "run/settings.h"

namespace {

TEST(ListRecord, IsWrittenToTheByte) {
  EXPECT_EQ(formatListRecord(7, 0x101, "/m/a b", formatOpString(3)),
            "7:0:        101:0:0:0:0:0:6!/m/a b:0!;9!3,0,0,0,0\n");
  EXPECT_EQ(formatListRecord(0, 0xfedcba9876543210, "/x", "1,2,3,1,0"),
            "0:0:fedcba9876543210:0:0:0:0:0:2!/x:0!;9!1,2,3,1,0\n");
}

TEST(ListRecord, IsReadByItsLengths) {
  const std::string paths[] = {
      "/m/plain", "/m/a:0!;9!3,0,0,0,0\n1:0:", "/m/new\nline\n", "/m/bl ank!\t\\n",
      "/m/%s%n",  std::string("/m/\xff\x01\r")};
  std::string text;
  for (size_t i = 0; i < std::size(paths); ++i)
    text += formatListRecord(static_cast<int64_t>(i), 0x100000000ull + i, paths[i],
                             formatOpString(2, 9000000000, 18446744073709551615ull, 1, 1));
  size_t position = 0;
  for (size_t i = 0; i < std::size(paths); ++i) {
    ListRecordFields record;
    ASSERT_TRUE(parseListRecord(text, &position, &record)) << i;
    EXPECT_EQ(record.aggregate, static_cast<int64_t>(i));
    EXPECT_EQ(record.ino, 0x100000000ull + i);
    EXPECT_EQ(record.path, paths[i]);
    EXPECT_EQ(record.opString, "2,9000000000,18446744073709551615,1,1");
    EXPECT_TRUE(record.whole.ends_with('\n'));
  }
  EXPECT_EQ(position, text.size());
}

TEST(ListRecord, DamageIsNoticed) {
  const std::string good = formatListRecord(1, 0x101, "/m/file", formatOpString(7));
  ListRecordFields record;
  for (size_t length = 0; length < good.size(); ++length) {
    size_t position = 0;
    EXPECT_FALSE(parseListRecord(good.substr(0, length), &position, &record)) << length;
    EXPECT_EQ(position, 0u);
  }
  for (const char *bad : {"1:0:101:0:0:0:0:0:-1!:0!;1!x\n", "1:0:101:0:0:0:0:0:99999999999!a:0!;1!x\n",
                          "1:1:101:0:0:0:0:0:1!a:0!;1!x\n", "1:0:zz:0:0:0:0:0:1!a:0!;1!x\n",
                          "1:0:101:0:0:0:0:0:1!a:0!;2!x\n"}) {
    size_t position = 0;
    EXPECT_FALSE(parseListRecord(bad, &position, &record)) << bad;
  }
}

TEST(OpString, FormatAndParse) {
  EXPECT_EQ(formatOpString(4), "4,0,0,0,0");
  OpString op;
  ASSERT_TRUE(parseOpString(formatOpString(1, -5, 33554432, 1, 0), &op));
  EXPECT_EQ(op.opCode, 1);
  EXPECT_EQ(op.offset, -5);
  EXPECT_EQ(op.length, 33554432u);
  EXPECT_EQ(op.holeFound, 1);
  EXPECT_EQ(op.clone, 0);
  for (const char *bad :
       {"", "1", "1,2,3", "1,2,3,4,", "a,0,0,0,0", "1;0;0;0;0", "99999999999,0,0,0,0"})
    EXPECT_FALSE(parseOpString(bad, &op)) << bad;
}

TEST(BatchLine, PathsAreDecoded) {
  struct {
    const char *line, *op, *path;
  } cases[] = {
      {"257 0 0 3,0,0,0,0 -- /m/a\n", "3,0,0,0,0", "/m/a"},
      {"257 9 8 7,0,0,0,0  --  /m/ b \n", "7,0,0,0,0", " /m/ b "},
      {"18446744073709551615 0 0 x -- /m/new\\nline\\ttab\\\\back\\q\nrest", "x",
       "/m/new\nline\ttab\\backq"},
      {"1 0 0 x -- /m/end\\", "x", "/m/end\\"},
      {"1 0 0 x -- -- a", "x", "-- a"},
  };
  for (const auto &test : cases) {
    BatchLine line;
    ASSERT_TRUE(parseBatchLine(test.line, &line)) << test.line;
    EXPECT_EQ(line.opString, test.op);
    EXPECT_EQ(line.path, test.path);
  }
  BatchLine line;
  for (const std::string &bad : {std::string(""), std::string("1 2 3\n"), std::string("1 2 3 x\n"),
                                 std::string("1 2 3 x /m/a\n"), std::string("x 2 3 y -- /m/a\n"),
                                 std::string("99999999999999999999 2 3 y -- /m/a\n"),
                                 "1 2 3 " + std::string(kOpStringMax + 1, '1') + " -- /m/a\n"})
    EXPECT_FALSE(parseBatchLine(bad, &line)) << bad;
}

TEST(CheckpointLine, FormatAndParse) {
  EXPECT_EQ(formatCheckpointLine(0xabcdef0123456789, "7,0,0,0,0"), "abcdef0123456789 7,0,0,0,0\n");
  uint64_t ino = 0;
  std::string_view op;
  ASSERT_TRUE(parseCheckpointLine("1f 7,0,0,0,0\n", &ino, &op));
  EXPECT_EQ(ino, 0x1fu);
  EXPECT_EQ(op, "7,0,0,0,0");
  for (const char *bad : {"", "\n", "1f\n", "1f \n", "xyz 7,0,0,0,0\n", "1f7,0,0,0,0\n"})
    EXPECT_FALSE(parseCheckpointLine(bad, &ino, &op)) << bad;
}

TEST(Aggregates, NumberRecords) {
  AggregateCounter counter;
  std::vector<int64_t> numbers;
  for (int i = 0; i < 8; ++i) {
    counter.countRecord(2);
    numbers.push_back(counter.iAgg);
  }
  // The record that overflows opens the next aggregate with count 0.
  EXPECT_EQ(numbers, (std::vector<int64_t>{0, 0, 1, 1, 1, 2, 2, 2}));
  counter.startAggregate();
  EXPECT_EQ(counter.iAgg, 3);
  counter.countRecord(2);
  EXPECT_EQ(counter.iAgg, 3);
}

TEST(SideList, CountsOnlyWhatWasWritten) {
  char dir[] = "/tmp/unit-record-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  settings = {};
  settings.unitSize = 1;
  settings.phase = 3;
  AggregateCounter counter;
  bool opened = false;
  const std::string list = std::string(dir) + "/list";
  const int64_t count_before = opCount;
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(appendSideRecord(list, "list", 300, "/m/a", kOpCrDir, counter, &opened), 0);
  std::string text;
  ASSERT_TRUE(readWholeFile(list, &text));
  EXPECT_EQ(text,
            "0:0:        12c:0:0:0:0:0:4!/m/a:0!;9!3,0,0,0,0\n1:0:        "
            "12c:0:0:0:0:0:4!/m/a:0!;9!3,0,0,0,0\n"
            "1:0:        12c:0:0:0:0:0:4!/m/a:0!;9!3,0,0,0,0\n");
  EXPECT_EQ(appendSideRecord("/dev/full", "list", 300, "/m/a", kOpCrDir, counter, &opened), ENOSPC);
  EXPECT_TRUE(opened);
  EXPECT_EQ(counter.iAgg, 1);
  EXPECT_EQ(
      appendSideRecord(std::string(dir) + "/no/list", "list", 300, "/m/a", kOpCrDir, counter, &opened),
      ENOENT);
  EXPECT_FALSE(opened);
  EXPECT_EQ(opCount - count_before, 3);
  std::filesystem::remove_all(dir);
}

}  // namespace
