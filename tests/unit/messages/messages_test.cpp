#include "messages/messages.h"

#include <gtest/gtest.h>
#include <nl_types.h>
#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "messages/catalogue.h"
#include "messages/front_texts.h"

namespace {

TEST(Catalogue, ConversionsMustMatch) {
  struct {
    const char *a, *b;
    bool same;
  } cases[] = {
      {"[%s] %lld of %d%%\n", "%s: %lld, %d (100%%)", true},
      {"%-10s %05d", "%s %d", true},
      {"plain", "also plain", true},
      {"%d", "%lld", false},
      {"%s", "%s %s", false},
      {"%s %d", "%d %s", false},
      {"%s", "%n", false},
      {"%s", "%1$s", false},
      {"%d", "%*d", false},
      {"plain", "100%", false},
  };
  for (const auto &test : cases)
    EXPECT_EQ(sameConversions(test.a, test.b), test.same) << test.a << " | " << test.b;
}

TEST(Catalogue, UnfitTextsAreNotUsedAndErrnoIsKept) {
  char dir[] = "/tmp/unit-messages-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string folder = dir;
  std::ofstream(folder + "/source") << "$set 27\n491 Keine Dateien.\\n\n490 [%lld] falsch\\n\n";
  ASSERT_EQ(system(("gencat " + folder + "/kest.cat " + folder + "/source").c_str()), 0)
      << "gencat is part of libc-bin";
  ASSERT_EQ(setenv("NLSPATH", (folder + "/%N").c_str(), 1), 0);
  initMessages();
  errno = ENOSPC;
  testing::internal::CaptureStderr();
  userMessage(Message::kRestoreFilesFailed);
  userMessage(Message::kRestoreFiles, "T");
  userMessage(Message::kScanProgress, std::string("T"), 2, uint64_t{5000000000}, 37);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Keine Dateien.\n"
            "[T] Restore files ...\n"
            "[T] Pass 2, 5000000000 inodes have been scanned. 37% of total.\n");
  std::filesystem::remove_all(folder);
}

// The German catalogue has every text of the programs, with the same arguments and the same ending.
TEST(Catalogue, GermanIsWholeAndFits) {
  const nl_catd german = catopen(GERMAN_CATALOGUE, 0);
  ASSERT_NE(german, reinterpret_cast<nl_catd>(-1)) << GERMAN_CATALOGUE;
  const auto check = [&](int set, int number, const std::string &text) {
    const std::string translated = catgets(german, set, number, "");
    EXPECT_NE(translated, "") << set << ":" << number << " " << text;
    EXPECT_TRUE(sameConversions(translated.c_str(), text.c_str())) << text << translated;
    EXPECT_EQ(translated.ends_with('\n'), text.ends_with('\n')) << text << translated;
  };
  for (const MessageText &entry : kMessages)
    if (entry.set != 0) check(entry.set, entry.number, entry.text);
  for (const FrontEntry &entry : kFrontTexts) check(kFrontSet, static_cast<int>(entry.id), entry.text);
  EXPECT_STREQ(catgets(german, kFrontSet, static_cast<int>(FrontText::kEnd), "none"), "none");
  catclose(german);
}

}  // namespace
