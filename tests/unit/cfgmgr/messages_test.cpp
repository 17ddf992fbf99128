#include "cfgmgr/messages.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "cfgmgr/catalogue.h"
#include "cfgmgr/clem.h"

namespace {

std::string printed(const std::function<void()> &print) {
  testing::internal::CaptureStderr();
  print();
  return testing::internal::GetCapturedStderr();
}

TEST(Messages, DefaultTextsAreToTheByte) {
  EXPECT_EQ(printed([] { userMessage(Message::kUsage, "fsetrestore"); }),
            "Usage fsetrestore\n    Device { -j FileSet -o SnapShot} \n    [ -b unitSize | -m threads "
            "| -N nodes | "
            "-q quite | -x no_EA | -v Verb| -B maxFiles | -E restore_ENC_EA]\n");
  EXPECT_EQ(printed([] {
              userMessage(Message::kScanProgress, std::string("T"), 2, uint64_t{5000000000}, 37);
            }),
            "[T] Pass 2, 5000000000 inodes have been scanned. 37% of total.\n");
  EXPECT_EQ(printed([] { userMessage(Message::kScanComplete, "T", 1, int64_t{7}); }),
            "[T] Pass 1, 7 inodes have been scanned. 100% of total.\n");
  EXPECT_EQ(printed([] { printCLEM(nullptr, kClemTooFewArguments); }),
            "Too few arguments specified.\n");
}

TEST(Messages, UnknownSelectorEndsTheProcess) {
  EXPECT_DEATH(printCLEM(nullptr, 35), "Unknown message number in printCLEM");
}

TEST(Catalogue, ConversionsMustMatch) {
  struct {
    const char *a, *b;
    bool same;
  } cases[] = {
      {"[%s] %lld of %d%%\n", "%s: %lld, %d (100%%)", true},
      {"%-10s %05d", "%s %d", true},
      {"%s", "%d", false},
      {"%d", "%lld", false},
      {"%s", "%s %s", false},
      {"%s %d", "%d %s", false},
      {"%s", "%n", false},
      {"%s", "%1$s", false},
      {"%d", "%*d", false},
      {"plain", "also plain", true},
      {"%s", "%", false},
      {"plain", "100%", false},
  };
  for (const auto &test : cases)
    EXPECT_EQ(sameConversions(test.a, test.b), test.same) << test.a << " | " << test.b;
}

TEST(Catalogue, UnfitTextsAreNotUsedAndErrnoIsKept) {
  CatalogueLookup before =
      setCatalogueLookup([](int set, int number, const char *text) -> const char * {
        errno = EBADF;
        if (set == 27 && number == 491) return "Dateien nicht wiederhergestellt.\n";
        if (set == 27 && number == 490) return "[%d] Dateien ...\n";
        return text;
      });
  EXPECT_EQ(printed([] { userMessage(Message::kRestoreFilesFailed); }),
            "Dateien nicht wiederhergestellt.\n");
  EXPECT_EQ(printed([] { userMessage(Message::kRestoreFiles, "T"); }), "[T] Restore files ...\n");
  errno = ENOSPC;
  printed([] { userMessage(Message::kNoWorkDir, strerror(errno)); });
  EXPECT_EQ(errno, ENOSPC);
  setCatalogueLookup(before);
}

TEST(Catalogue, ARealCatalogueIsRead) {
  char dir[] = "/tmp/unit-cfgmgr-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string folder = dir;
  std::ofstream(folder + "/source") << "$set 27\n491 Keine Dateien.\\n\n490 [%lld] falsch\\n\n";
  ASSERT_EQ(system(("gencat " + folder + "/kest.cat " + folder + "/source").c_str()), 0)
      << "gencat is part of libc-bin";
  ASSERT_EQ(setenv("NLSPATH", (folder + "/%N").c_str(), 1), 0);
  initMessages();
  errno = ENOSPC;
  EXPECT_STREQ(catMsg(27, 491, "Failed to restore files.\n"), "Keine Dateien.\n");
  EXPECT_STREQ(messageText(Message::kRestoreFiles), "[%s] Restore files ...\n");
  EXPECT_STREQ(messageText(Message::kCompleted), "[%s] Restore completed.\n");
  EXPECT_EQ(errno, ENOSPC);
  std::filesystem::remove_all(folder);
}

}  // namespace
