#include <cerrno>

#include "formats/list_record.h"
#include "plan/lists.h"
#include "unit/support/work_area.h"

namespace {

class DirLists : public WorkArea {
 protected:
  Result add(uint64_t top, int32_t depth, uint64_t ino, OpCode op, bool deleted) {
    lists.dirDepth = depth;
    return lists.DirListRecord(top, "/fs/d", ino, op, deleted);
  }
  // Expects the records of three inodes in the list, whatever their aggregates.
  void expectRecords(const std::string &list, std::vector<uint64_t> inodes) {
    const std::string text = get(list);
    std::string_view rest = text;
    ListedRecord record;
    for (uint64_t ino : inodes) {
      ASSERT_TRUE(parseListRecord(rest, &record)) << list;
      EXPECT_EQ(record.ino, ino) << list;
      rest.remove_prefix(record.whole.size());
    }
    EXPECT_EQ(rest, "") << list;
  }

  MasterLists lists;
};

// More lists at the same time than are kept open.
TEST_F(DirLists, EveryRecordInItsListInOrder) {
  for (uint64_t ino = 1; ino <= 3; ++ino) {
    for (uint64_t top = 1000; top < 1040; ++top) {
      ASSERT_TRUE(add(top, 1, ino, kOpCrDir, true));
      ASSERT_TRUE(add(top, 1, ino + 10, kOpDelDir, false));
      ASSERT_TRUE(add(top, 2, ino + 20, kOpMoveFile, false));
    }
  }
  EXPECT_TRUE(lists.closePass());
  for (uint64_t top = 1000; top < 1040; ++top) {
    expectRecords(dirSetList(top, true, 1), {1, 2, 3});
    expectRecords(dirSetList(top, false, 1), {11, 12, 13});
    expectRecords(dirSetMoveList(top, false, 2), {21, 22, 23});
  }
  settings.shareDir += "/gone";
  EXPECT_EQ(add(8, 1, 300, kOpCrDir, true).rc, ENOENT);
}

}  // namespace
