#include "policy/list_update.h"

#include <sys/resource.h>
#include <sys/wait.h>

#include "formats/checkpoint.h"
#include "formats/list_record.h"
#include "unit/support/work_area.h"

namespace {

class ListUpdate : public WorkArea {
 protected:
  void checkpoint(int worker, const std::string &text, int caller = 42) {
    put(checkpointFile(caller, "host", worker), text);
  }
  Result update() { return updateOpList(at(kOpList), 42); }
};

const std::string kRange0 = formatListRecord(0, 300, "/fs/a", {kOpRestoreDiffFile, 0, 10});
const std::string kRange1 = formatListRecord(1, 300, "/fs/a", {kOpRestoreDiffFile, 10, 10});
const std::string kHostile = formatListRecord(2, 0x1ffffffff, "/fs/x\n%s:0!;3!7,0\n", {kOpDeleteFile});

TEST_F(ListUpdate, DropsWhatCheckpointsNameAndKeepsTheRest) {
  put(kOpList, kRange0 + kRange1 + kHostile);
  checkpoint(1, "12c 2,10,10,0,0\n");
  checkpoint(2, "1ffffffff 6,0,0,0,0\n");              // same inode, other operation
  checkpoint(1, "12c 2,0,10,0,0\n", /*caller*/ 4242);  // another caller
  ASSERT_TRUE(update());
  EXPECT_EQ(get(kOpList), kRange0 + kHostile);
  checkpoint(3, "1ffffffff 7,0,0,0,0\n");
  ASSERT_TRUE(update());
  EXPECT_EQ(get(kOpList), kRange0);
  EXPECT_EQ(get("opList.orig"), kRange0 + kRange1 + kHostile) << "the full list is kept once";
  EXPECT_FALSE(exists("opList.tmp"));
}

TEST_F(ListUpdate, RecordsThatLookAlikeAreNeverDropped) {
  put(kOpList, kRange0 + kRange0);
  checkpoint(1, "12c 2,0,10,0,0\n");
  ASSERT_TRUE(update());
  EXPECT_EQ(get(kOpList), kRange0 + kRange0);
}

TEST_F(ListUpdate, DamagedInputLeavesTheListAsItWas) {
  const std::string list = kRange0 + kRange1, done = "12c 2,0,10,0,0";
  struct {
    const char *name;
    std::string list, checkpoint;
  } cases[] = {
      {"cut line", list, "12c\n"},
      {"cut record", list.substr(0, list.size() - 3), ""},
      {"record that is too long",
       kRange0 + formatListRecord(1, 301, std::string(16384, 'p'), {kOpDeleteFile}), ""},
      {"line that is too long", list,
       done + std::string(16385 - done.size(), ' ') + "12c 2,10,10,0,0\n"},
  };
  for (const auto &one : cases) {
    put(kOpList, one.list);
    checkpoint(1, one.checkpoint);
    EXPECT_EQ(update().rc, -1) << one.name;
    EXPECT_EQ(get(kOpList), one.list) << one.name;
  }
}

// Done records are kept in memory, but not the list.
TEST_F(ListUpdate, SixHundredThousandCheckpoints) {
  constexpr int kRecords = 600000, kLeft = kRecords / 2;
  const auto record = [](int i) {
    return formatListRecord(i / 100, 300 + i, "/fs/\nsome/directory/file", {kOpDeleteFile});
  };
  {
    std::ofstream list(at(kOpList), std::ios::binary), done(checkpointFile(42, "host", 1));
    for (int i = 0; i < kRecords; ++i) {
      list << record(i);
      if (i != kLeft) done << formatCheckpointLine(300 + i, "7,0,0,0,0");
    }
  }
  rusage before{}, after{};
  getrusage(RUSAGE_SELF, &before);
  const pid_t child = fork();
  if (child == 0) _exit(update() ? 0 : 1);
  int status = -1;
  ASSERT_EQ(wait4(child, &status, 0, &after), child);
  EXPECT_EQ(status, 0);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 40 * 1024) << "KiB";
  EXPECT_EQ(get(kOpList), record(kLeft));
}

}  // namespace
