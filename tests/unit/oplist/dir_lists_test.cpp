#include "oplist/dir_lists.h"

#include <cerrno>

#include "record/record_format.h"
#include "unit/support/work_area.h"

namespace {

class DirLists : public WorkArea {
 protected:
  int add(uint64_t top, int32_t depth, uint64_t ino, OpCode op, bool deleted) {
    dirDepth = depth;
    const int rc = DirListRecord(top, "/fs/d", ino, op, 0, deleted);
    dirDepth = 0;
    return rc;
  }
  // The records of three inodes, as that list should hold them, whatever their aggregates.
  void expectRecords(const std::string &list, std::vector<uint64_t> inodes) {
    const std::string text = get(list);
    ListRecordFields record;
    size_t position = 0;
    for (uint64_t ino : inodes) {
      ASSERT_TRUE(parseListRecord(text, &position, &record)) << list;
      EXPECT_EQ(record.ino, ino) << list;
    }
    EXPECT_EQ(position, text.size()) << list;
  }
};

// More lists at once than are kept open.
TEST_F(DirLists, EveryRecordInItsListInOrder) {
  for (uint64_t ino = 1; ino <= 3; ++ino) {
    for (uint64_t top = 1000; top < 1040; ++top) {
      ASSERT_EQ(add(top, 1, ino, kOpCrDir, true), 0);
      ASSERT_EQ(add(top, 1, ino + 10, kOpDelDir, false), 0);
      ASSERT_EQ(add(top, 2, ino + 20, kOpMoveFile, false), 0);
    }
  }
  int rc = EIO;  // an earlier failure stays
  closeDirLists(&rc);
  EXPECT_EQ(rc, EIO);
  for (uint64_t top = 1000; top < 1040; ++top) {
    expectRecords(dirSetList(top, true, 1), {1, 2, 3});
    expectRecords(dirSetList(top, false, 1), {11, 12, 13});
    expectRecords(dirSetMoveList(top, false, 2), {21, 22, 23});
  }
  settings.shareDir += "/gone";
  EXPECT_EQ(add(8, 1, 300, kOpCrDir, true), ENOENT);
}

}  // namespace
