#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "formats/batch_line.h"
#include "formats/checkpoint.h"
#include "formats/list_record.h"
#include "formats/new_parent_line.h"
#include "formats/policy_text.h"
#include "formats/shell_words.h"
#include "formats/work_names.h"

namespace {

using Words = std::vector<std::string>;

TEST(ListedRecord, IsWrittenToTheByte) {
  EXPECT_EQ(formatListRecord(7, 0x101, "/m/a b", {kOpCrDir}),
            "7:0:        101:0:0:0:0:0:6!/m/a b:0!;9!3,0,0,0,0\n");
  EXPECT_EQ(formatListRecord(0, 0xfedcba9876543210, "/x", {1, -5, 33554432, 1, 1}),
            "0:0:fedcba9876543210:0:0:0:0:0:2!/x:0!;17!1,-5,33554432,1,1\n");
  EXPECT_EQ(formatCheckpointLine(0xabcdef0123456789, "7,0,0,0,0"), "abcdef0123456789 7,0,0,0,0\n");
}

TEST(ListedRecord, DamageIsNoticed) {
  ListedRecord record;
  RecordProblem problem;
  const std::string good = formatListRecord(1, 0x101, "/c:d!e\nf", {2, 0, 4096, 1, 0});
  for (size_t length = 0; length < good.size(); ++length) {
    EXPECT_FALSE(parseListRecord(good.substr(0, length), &record, &problem)) << length;
    EXPECT_LE(problem.at, length);
  }
  const std::string longer = good + "rest";
  ASSERT_TRUE(parseListRecord(longer, &record));
  EXPECT_EQ(record.whole, good);
  const std::string head = "0:0:12c:0:0:0:0:0:";
  for (const auto &[bad, at] : std::vector<std::pair<std::string, size_t>>{
           {head + "-1!/a:0!;9!7,0,0,0,0\n", 18},
           {head + "99999999999!/a:0!;9!7,0,0,0,0\n", 18},
           {head + "5!/a/b:0!;9!7,0,0,0,0\n", 25},
           {head + "0!:0!;9!7,0,0,0,0\n", 18},
           {head + "4!/a/b:0!;8!7,0,0,0,0\n", 38},
           {head + "4!/a/b:0!;11!7,0,0,0,0\n", 28},
           {head + "4!/a/b:0!;9!7,0 0,0,0\n", 40},
           {head + "4!/a" + '\0' + "b:0!;9!7,0,0,0,0\n", 22},
           {"0:0:xyz:0:0:0:0:0:4!/a/b:0!;9!7,0,0,0,0\n", 4},
           {formatListRecord(0, 300, std::string(4096, 'x'), {kOpDeleteFile}), 26}}) {
    EXPECT_FALSE(parseListRecord(bad, &record, &problem)) << bad;
    EXPECT_EQ(problem.at, at) << bad << problem.what;
  }
}

class Lists : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(fd_); }
  void put(const std::string &text) {
    ASSERT_EQ(write(fd_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  Result open(ListReader *list) { return list->open(UniqueFd(fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0))); }

  UniqueFd fd_{memfd_create("list", MFD_CLOEXEC)};
};

TEST_F(Lists, PathsAreFoundByLengthAndLaterRecordsLeft) {
  const std::string paths[] = {"/a", "/x:0!;9!7,0,0,0,0\n1:0:5:", "/\n\t\\ \xff!;",
                               std::string(4095, 'p')};
  // More than one read, so that records cross the border.
  std::string text;
  for (int i = 0; i < 1200; ++i)
    text += formatListRecord(i / 7, 0x123456789abcdef0u + i, paths[i % 4], {1, 4096, 8192, 0, 1});
  put(text);
  ListReader list;
  ASSERT_TRUE(open(&list));
  put(formatListRecord(9, 9, "/later", {kOpDeleteFile}));
  for (int round = 0; round < 2; ++round) {
    ListedRecord record;
    bool end = true;
    for (int i = 0; i < 1200; ++i) {
      ASSERT_TRUE(list.next(&record, &end)) << list.problem();
      ASSERT_FALSE(end);
      ASSERT_EQ(record.path, paths[i % 4]);
      ASSERT_EQ(record.aggregate, i / 7);
      ASSERT_EQ(record.ino, 0x123456789abcdef0u + i);
      ASSERT_EQ(record.opString, "1,4096,8192,0,1");
    }
    ASSERT_TRUE(list.next(&record, &end) && end);
    EXPECT_EQ(list.position(), text.size());
    EXPECT_EQ(list.textHere(10), "");
    list.seek(0);
  }
}

TEST_F(Lists, DamageIsNamedByItsByte) {
  const std::string good = formatListRecord(1, 300, "/a", {kOpDeleteFile});
  put(good + "no record, " + good);
  ListReader list;
  ListedRecord record;
  bool end = false;
  ASSERT_TRUE(open(&list) && list.next(&record, &end));
  EXPECT_EQ(list.next(&record, &end).err, EINVAL);
  EXPECT_EQ(list.problem(), "aggregate number expected at byte " + std::to_string(good.size()));
  EXPECT_EQ(list.textHere(9), "no record");
  ASSERT_TRUE(open(&list));
  ASSERT_EQ(ftruncate(fd_.get(), 5), 0);
  EXPECT_EQ(list.next(&record, &end).err, EINVAL);
  EXPECT_EQ(list.problem(), "it became shorter, at byte 5");
  EXPECT_EQ(list.open(UniqueFd(::open("/", O_RDONLY | O_CLOEXEC))).err, EISDIR);
}

TEST(Lines, DamageIsNoticed) {
  BatchLine line;
  for (const char *bad : {"", "1 2 3\n", "1 2 3 x\n", "1 2 3 x /m/a\n", "x 2 3 y -- /m/a\n",
                          "99999999999999999999 2 3 y -- /m/a\n", "1 2 3 x -- /m/a"})
    EXPECT_FALSE(parseBatchLine(bad, &line)) << bad;
  const std::string longer(kOpStringMax + 1, '1');
  EXPECT_FALSE(parseBatchLine("1 2 3 " + longer + " -- /m/a\n", &line));
  Operation op;
  for (const char *bad :
       {"", "1", "1,2,3", "1,2,3,4,", "a,0,0,0,0", "1;0;0;0;0", "99999999999,0,0,0,0"})
    EXPECT_FALSE(parseOpString(bad, &op)) << bad;
  uint64_t ino = 0;
  std::string_view text;
  for (const char *bad : {"", "\n", "1f\n", "1f \n", "xyz 7,0,0,0,0\n", "1f7,0,0,0,0\n"})
    EXPECT_FALSE(parseCheckpointLine(bad, &ino, &text)) << bad;
}

TEST(NewParentLine, LastWholeLinesAreTakenFirst) {
  const std::string text = formatNewParentLine(257) + "x\n\n" + formatNewParentLine(~uint64_t{0}) +
                           "12 \n99999999999999999999\n300";
  std::string_view rest = text;
  uint64_t ino = 0;
  ASSERT_TRUE(takeLastNewParent(&rest, &ino));
  EXPECT_EQ(ino, ~uint64_t{0});
  ASSERT_TRUE(takeLastNewParent(&rest, &ino));
  EXPECT_EQ(ino, 257);
  EXPECT_FALSE(takeLastNewParent(&rest, &ino));
}

TEST(BatchLine, PathsAreDecoded) {
  BatchLine line;
  ASSERT_TRUE(parseBatchLine("257 9 8 7,0,0,0,0  --  /m/ b \n", &line));
  EXPECT_EQ(line.opString + line.path, "7,0,0,0,0 /m/ b ");
  ASSERT_TRUE(parseBatchLine("1 0 0 x -- -- /m/n\\nt\\tb\\\\q\\q\nrest", &line));
  EXPECT_EQ(line.path, "-- /m/n\nt\tb\\qq");
}

TEST(PolicyText, OneScriptIsFoundAndNothingMisread) {
  ScriptRule rule;
  std::string problem;
  ASSERT_TRUE(
      parsePolicy("/* RULE */ rule 'EXTERNAL LIST' where x\n"
                  "rule 'r' external list 'l' exec '/opt/it''s/tool' opts ' -j ''a b'' -q '",
                  &rule, &problem))
      << problem;
  EXPECT_EQ(rule.exec, "/opt/it's/tool");
  EXPECT_EQ(rule.options, (Words{"-j", "a b", "-q"}));
  const std::string list = "RULE EXTERNAL LIST 'a' ", good = list + "EXEC '/x' ";
  EXPECT_TRUE(parsePolicy(good + "RULE 'noop' LIST 'all'", &rule, &problem)) << problem;
  for (const std::string &text : {list, good, good + "ESCAPE '%'", good + "OPTS 'it''s'",
                                  good + "EXEC '/y'", good + good, list + "EXEC ''"}) {
    EXPECT_EQ(parsePolicy(text, &rule, &problem), text == good) << text;
  }
}

TEST(ShellWords, AreSplitAsAShellDoesAndNotExpanded) {
  const std::pair<const char *, Words> cases[] = {
      {"''x \"\" y''", {"x", "", "y"}},
      {R"(a\ b 'c\d' "e\"f\g\\")", {"a b", "c\\d", "e\"f\\g\\"}},
      {"'it'\\''s' a'b c'd", {"it's", "ab cd"}},
      {"one\\\ntwo\t3 ", {"onetwo", "3"}},
      {"$HOME `id` $(id) * ~ #x ;|&>", {"$HOME", "`id`", "$(id)", "*", "~", "#x", ";|&>"}},
  };
  Words words;
  std::string problem;
  for (const auto &[text, expected] : cases) {
    EXPECT_TRUE(splitWords(text, &words, &problem)) << text;
    EXPECT_EQ(words, expected) << text;
  }
  for (const char *text : {"'a", "\"a\\\"", "a\\"})
    EXPECT_FALSE(splitWords(text, &words, &problem)) << text;
}

TEST(WorkNames, AreReadAsTheyAreWritten) {
  const uint64_t ino = 1041;
  TempPlace place;
  const std::string aside = tempLocationName(ino) + "/a/b", clone = cloneDeleteLocationName(ino);
  EXPECT_EQ(aside, "MOVE_17/_1041/a/b");
  ASSERT_TRUE(parseTempPlace(aside, &place));
  EXPECT_EQ(std::to_string(place.ino).append(place.inside), "1041a/b");
  ASSERT_TRUE(parseTempPlace(clone, &place));
  EXPECT_EQ(std::to_string(place.ino).append(place.inside), "1041");
  for (const std::string &other : {destinationName(ino), newParentName(ino), bucketName(ino),
                                   dirSetListName(ino, true, 3), std::string("MOVE_17/_x/a")})
    EXPECT_FALSE(parseTempPlace(other, &place)) << other;
  EXPECT_EQ(parseNewParentName("1041.clone.newParent"), ino);
  EXPECT_EQ(parseNewParentName("1041.clone.newParents"), std::nullopt);
  EXPECT_EQ(parseDirSetList("12"), 12);
  EXPECT_EQ(parseDirSetList("12.move"), 12);
  for (const char *other : {"policy", "12.tmp", ".move", "-1"})
    EXPECT_EQ(parseDirSetList(other), std::nullopt) << other;
  EXPECT_EQ(parseCloneList(cloneListName(7)), 7);
  EXPECT_EQ(parseCloneDeleteList(cloneDeleteListName(7)), 7);
  EXPECT_EQ(parseCloneList(cloneDeleteListName(7)), std::nullopt);
  EXPECT_EQ(parseCloneList(rewrittenList(cloneListName(7))), std::nullopt);
}

}  // namespace
