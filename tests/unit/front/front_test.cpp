// What fset parses and shows: names, times, choices, lines of fsetcompare, files of snapshot tools.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include "front/btrfs_store.h"
#include "front/choice.h"
#include "front/difference.h"
#include "front/info_files.h"
#include "front/json.h"
#include "front/mount_lines.h"
#include "front/text.h"
#include "front/trouble.h"
#include "front/when.h"

using namespace front;

namespace {

TEST(Names, NothingThatSteersATerminalOrIsNoText) {
  const struct {
    std::string name, text;
  } cases[] = {{"plain name", "plain name"},
               {"a\\b\n\x1b[2J\x7f", "a\\\\b\\x0a\\x1b[2J\\x7f"},
               {"\xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80", "\xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80"},
               {"\xc2\x9b"
                "1m",
                "\\xc2\\x9b1m"},  // CSI as one character
               {"\xe2\x80\x8f\xe2\x80\xaegpj.exe",
                "\\xe2\\x80\\x8f\\xe2\\x80\\xaegpj.exe"},  // written from right to left
               {"\xff \xc3", "\\xff \\xc3"},
               {"\xc0\xaf\xed\xa0\x80", "\\xc0\\xaf\\xed\\xa0\\x80"}};  // overlong, a surrogate
  for (const auto &one : cases) EXPECT_EQ(shown(one.name), one.text);
  EXPECT_EQ(unescaped("a\\\\n\\n\\t\\x1b\\xzz\\"), "a\\n\n\t\x1b\\xzz\\");
}

TEST(Names, JsonHoldsEveryNameAndSaysItsBytes) {
  Json object;
  putName(&object, "plain", "\xc3\xbc\n");
  putName(&object, "bad", "a\xff\xfe");
  EXPECT_EQ(object.dump(),
            "{\"plain\":\"\xc3\xbc\\n\",\"bad\":\"a\xef\xbf\xbd\xef\xbf\xbd\",\"bad_hex\":\"61fffe\"}");
}

TEST(Names, SizesAndAges) {
  EXPECT_EQ(byteText(0), "0 B");
  EXPECT_EQ(byteText(1023), "1023 B");
  EXPECT_EQ(byteText((1 << 20) - 1), "1.0 MiB");
  EXPECT_EQ(byteText(UINT64_MAX), "16.0 EiB");
  EXPECT_EQ(ageText(119), "119 s");
  EXPECT_EQ(ageText(120), "2 min");
  EXPECT_EQ(ageText(3 * 86400 - 1), "2 days");
}

// Wednesday, 25 November 2026, 15:00 in a zone one hour east.
constexpr int64_t kNow = 1795615200;

class Times : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
  }
};

TEST_F(Times, WhatDateReads) {
  ASSERT_EQ(localTime(kNow), "2026-11-25 15:00:00");
  const struct {
    const char *words, *moment;  // null: not a time
  } cases[] = {{"2026-11-24", "2026-11-24 23:59:59"},
               {"20261124", "2026-11-24 23:59:59"},
               {"2026-11-24 00:00", "2026-11-24 00:00:00"},
               {"2026-11-24T10:30", "2026-11-24 10:30:00"},
               {"2026-10-25", "2026-10-25 23:59:59"},  // a day of 25 hours
               {"nonsense", nullptr},
               {"a", nullptr},
               {"42", nullptr},
               {"", nullptr},
               {"$(reboot)", nullptr},
               {"--help 1", nullptr},
               {"2026-13-45", nullptr}};
  for (const auto &one : cases) {
    const auto moment = momentOf(one.words, kNow);
    ASSERT_EQ(moment.has_value(), one.moment != nullptr) << one.words;
    if (moment) {
      EXPECT_EQ(localTime(*moment), one.moment) << one.words;
    }
  }
  EXPECT_THROW(momentOf("2026-11-27", kNow), Trouble);
}

// Words that date(1) interprets relative to the machine's clock.
TEST_F(Times, WordsMeanThePast) {
  const int64_t now = time(nullptr);
  EXPECT_NEAR(static_cast<double>(*momentOf("yesterday", now)), static_cast<double>(now - 86400), 7200);
  for (const char *words : {"mon 14:00", "Tuesday 14:00", "wed 14:00", "thursday 14:00", "fri 14:00",
                            "saturday 14:00", "sun 14:00", "monday", "sunday", "23:59", "00:01"}) {
    const auto moment = momentOf(words, now);
    ASSERT_TRUE(moment) << words;
    EXPECT_LE(*moment, now) << words;
    EXPECT_GT(*moment, now - 8 * 86400) << words;
  }
}

Snapshot made(const std::string &path, const std::string &name, int64_t created) {
  Snapshot one;
  one.path = path;
  one.name = name;
  one.created = created;
  return one;
}

TEST_F(Times, ChoosesByNameThenNumberThenTime) {
  std::vector<Snapshot> all{made(".fset/home-before-restore-x", "home-before-restore-x", kNow - 10),
                            made("home-new", "home-new", kNow - 20),
                            made("s/43/snapshot", "#43", kNow - 3600),
                            made("s/42/snapshot", "#42", kNow - 2 * 86400),
                            made("a/monday", "a/monday", kNow - 5 * 86400),
                            made("b/monday", "b/monday", kNow - 6 * 86400)};
  all[0].maker = Maker::kFset;
  all[0].backup = Backup::kBeforeRestore;
  all[0].parent = {1};
  all[1].read_only = false;
  all[2].number = 43;
  all[3].number = 42;
  Fileset fileset;
  fileset.store = &btrfsStore();
  fileset.uuid = {1};
  const auto chosen = [&](const std::string &word) {
    return chooseSnapshot(all, word, fileset, kNow).path;
  };
  EXPECT_EQ(chosen("latest"), "s/43/snapshot");
  EXPECT_EQ(chosen("#42"), "s/42/snapshot");
  EXPECT_EQ(chosen("42"), "s/42/snapshot");
  EXPECT_EQ(chosen("home-new"), "home-new");
  EXPECT_EQ(chosen("/b/monday/"), "b/monday");
  EXPECT_EQ(chosen("2026-11-24"), "s/42/snapshot");
  EXPECT_EQ(chosen("2026-11-25 14:00"), "s/43/snapshot");
  EXPECT_EQ(chosen("2026-11-25 13:59:59"), "s/42/snapshot");
  for (const char *word : {"monday", "snapshot"}) {
    try {
      chosen(word);
      ADD_FAILURE() << word << " was guessed";
    } catch (const Trouble &trouble) {
      EXPECT_EQ(trouble.candidates().size(), 2u) << word;
    }
  }
  for (const char *word : {"44", "#", "home", "2026-11-01", "/nosuch/path", "mondax"})
    EXPECT_THROW(chosen(word), Trouble) << word;
  EXPECT_EQ(chooseUndo(all, fileset).path, all[0].path);
  fileset.uuid = {2};
  EXPECT_THROW(chooseUndo(all, fileset), Trouble);
}

TEST(Differences, LinesOfOneObjectAreOne) {
  std::vector<ChangedObject> objects;
  DifferenceReader reader([](const ChangedObject &) { return 1000; },
                          [&](const ChangedObject &one) { objects.push_back(one); });
  for (const char *line :
       {"missing\ta\\nb\tfile", "extra\ta\\nb\tdirectory", "mtime\td\t1\t2", "mode\td/f\t644\t600",
        "data\td/f\t0", "moved\td/g\td/h", "mtime\td/g\t1\t2", "type\te\tfile\tlink", "differences\t8"})
    reader.line(line);
  reader.end();
  ASSERT_EQ(objects.size(), 6u);
  EXPECT_EQ(objects[0].path, "a\nb");
  EXPECT_EQ(objects[3].kinds, (std::vector<std::string>{"mode", "data"}));
  const Effect effects[] = {Effect::kComesBack, Effect::kGoesAway,  Effect::kAttributes,
                            Effect::kChanges,   Effect::kMovesBack, Effect::kChanges};
  for (size_t at = 0; at < objects.size(); ++at) EXPECT_EQ(objects[at].effect, effects[at]) << at;
  EXPECT_EQ(objects[4].now, "d/h");
  const Summary &summary = reader.summary();
  EXPECT_EQ(summary.lines, 8u);
  EXPECT_EQ(summary.directories.at("d").objects, 2u);
  EXPECT_EQ(summary.effects[static_cast<size_t>(Effect::kChanges)].bytes, 2000u);
  EXPECT_EQ(summary.effects[static_cast<size_t>(Effect::kGoesAway)].bytes, 0u);
}

TEST(Mounts, ShowWhatIsBelowTheirRootAndNoNeighbourOfIt) {
  const struct {
    const char *root, *point, *path, *place;
  } cases[] = {{"home", "/mnt/h", "home", "/mnt/h"}, {"home", "/mnt/h", "home/a", "/mnt/h/a"},
               {"home", "/mnt/h", "home-2/a", ""},   {"home", "/mnt/h", "other", ""},
               {"", "/", "home/a", "/home/a"},       {"", "/mnt", "home-2", "/mnt/home-2"}};
  for (const auto &one : cases) {
    MountLine mount;
    mount.root = one.root;
    mount.point = one.point;
    EXPECT_EQ(placeIn(mount, one.path), one.place) << one.path;
  }
}

TEST(InfoFiles, OfSnapperAndTimeshift) {
  const auto info = parseSnapperInfo(
      "<?xml version=\"1.0\"?>\n<snapshot>\n  <type>single</type>\n  <num>42</num>\n"
      "  <description>before &quot;apt&quot; &amp;amp; &lt;b&gt;</description>\n</snapshot>\n");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->number, 42u);
  EXPECT_EQ(info->description, "before \"apt\" &amp; <b>");
  for (const char *text : {"", "<snapshot>", "<snapshot><num>4x</num>", "<num>4</num>"})
    EXPECT_FALSE(parseSnapperInfo(text)) << text;
  EXPECT_EQ(parseTimeshiftInfo("{\"created\":\"1\",\"comments\":\"mine\",\"tags\":\"O \"}"), "mine");
  EXPECT_EQ(parseTimeshiftInfo("{\"created\":\"1\",\"comments\":7,\"tags\":\"O \"}"), "O ");
  for (const char *text : {"", "[", "[]", "{}", "\"created\""})
    EXPECT_FALSE(parseTimeshiftInfo(text)) << text;
}

}  // namespace
