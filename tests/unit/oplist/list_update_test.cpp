#include "oplist/list_update.h"

#include <sys/resource.h>
#include <sys/wait.h>

#include "record/checkpoint.h"
#include "record/record_format.h"
#include "unit/oplist/work_area.h"

namespace {

class ListUpdate : public WorkArea {
 protected:
  void SetUp() override {
    WorkArea::SetUp();
    list_ = workPath(kOpList);
  }
  void checkpoint(int worker, const std::string &text) { put(checkpointFile(42, "host", worker), text); }
  std::string list_;
};

const std::string kRange0 = formatListRecord(0, 300, "/fs/a", formatOpString(kOpRestoreDiffFile, 0, 10));
const std::string kRange1 = formatListRecord(1, 300, "/fs/a", formatOpString(kOpRestoreDiffFile, 10, 10));
const std::string kHostile = formatListRecord(2, 0x1ffffffffull, "/fs/x\n%s:0!;3!7,0\n", formatOpString(kOpDeleteFile));

TEST_F(ListUpdate, DropsWhatCheckpointsNameAndKeepsTheRest) {
  put(list_, kRange0 + kRange1 + kHostile);
  checkpoint(1, formatCheckpointLine(300, "2,10,10,0,0"));
  checkpoint(2, formatCheckpointLine(0x1ffffffffull, "6,0,0,0,0"));  // same inode, another operation
  put(checkpointFile(4242, "host", 1), formatCheckpointLine(300, "2,0,10,0,0"));  // another caller's
  ASSERT_EQ(updateOpList(list_, 42), 0);
  EXPECT_EQ(get(list_), kRange0 + kHostile);
  EXPECT_EQ(get(list_ + ".orig"), kRange0 + kRange1 + kHostile);

  checkpoint(3, formatCheckpointLine(0x1ffffffffull, "7,0,0,0,0"));
  ASSERT_EQ(updateOpList(list_, 42), 0);
  EXPECT_EQ(get(list_), kRange0);
  EXPECT_EQ(get(list_ + ".orig"), kRange0 + kRange1 + kHostile) << "the full list is kept once";
  EXPECT_FALSE(exists(list_ + ".tmp"));
}

TEST_F(ListUpdate, RecordsThatLookAlikeAreNeverDropped) {
  const std::string a = formatListRecord(0, 300, "/fs/a", formatOpString(kOpDeleteFile));
  const std::string b = formatListRecord(0, 300, "/fs/b", formatOpString(kOpDeleteFile));
  put(list_, a + b);
  checkpoint(1, formatCheckpointLine(300, "7,0,0,0,0"));
  ASSERT_EQ(updateOpList(list_, 42), 0);
  EXPECT_EQ(get(list_), a + b);
}

TEST_F(ListUpdate, DamagedInputLeavesTheListAsItWas) {
  put(list_, kRange0);
  checkpoint(1, "12c\n");
  EXPECT_EQ(updateOpList(list_, 42), -1);
  EXPECT_EQ(get(list_), kRange0);

  checkpoint(1, "");
  put(list_, kRange0 + kRange1.substr(0, kRange1.size() - 3));
  EXPECT_EQ(updateOpList(list_, 42), -1);
  EXPECT_EQ(get(list_), kRange0 + kRange1.substr(0, kRange1.size() - 3));

  // Longer than any record or line of ours: not cut, and not read in part.
  const std::string path(16384, 'p');
  put(list_, kRange0 + formatListRecord(1, 301, path, formatOpString(kOpDeleteFile)));
  const std::string before = get(list_);
  EXPECT_EQ(updateOpList(list_, 42), -1);
  EXPECT_EQ(get(list_), before);
  put(list_, kRange0);
  checkpoint(1, "12c 2,0,10,0,0" + std::string(16384, ' ') + "\n");
  EXPECT_EQ(updateOpList(list_, 42), -1);
  EXPECT_EQ(get(list_), kRange0);
}

// Done records stay in memory, the list does not.
TEST_F(ListUpdate, SixHundredThousandCheckpoints) {
  constexpr int kRecords = 600000;
  {
    std::ofstream list(list_, std::ios::binary), done(checkpointFile(42, "host", 1));
    for (int i = 0; i < kRecords; ++i) {
      list << formatListRecord(i / 100, 300 + i, "/fs/\nsome/directory/file", formatOpString(kOpDeleteFile));
      if (i != kRecords / 2) done << formatCheckpointLine(300 + i, formatOpString(kOpDeleteFile));
    }
  }
  rusage before{}, after{};
  getrusage(RUSAGE_SELF, &before);
  const pid_t child = fork();
  if (child == 0) _exit(updateOpList(list_, 42) == 0 ? 0 : 1);
  int status = -1;
  ASSERT_EQ(wait4(child, &status, 0, &after), child);
  EXPECT_EQ(status, 0);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 40 * 1024) << "KiB";
  EXPECT_EQ(get(list_), formatListRecord(kRecords / 2 / 100, 300 + kRecords / 2, "/fs/\nsome/directory/file",
                                         formatOpString(kOpDeleteFile)));
}

}  // namespace
