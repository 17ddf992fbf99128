#include "oplist/list_update.h"

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
}

}  // namespace
