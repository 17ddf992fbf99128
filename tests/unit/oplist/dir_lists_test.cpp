#include "oplist/dir_lists.h"

#include "record/record_format.h"
#include "unit/oplist/work_area.h"

namespace {

class DirLists : public WorkArea {
 protected:
  int add(uint64_t top, int32_t depth, uint64_t ino, OpCode op, bool deleted) {
    dirDepth = depth;
    const int rc = DirListRecord(top, "/fs/d", ino, op, 0, deleted);
    dirDepth = 0;
    return rc;
  }
  // Inode numbers of the list's records.
  std::vector<uint64_t> inodes(const std::string &list) {
    const std::string text = get(list);
    std::vector<uint64_t> found;
    ListRecordFields record;
    for (size_t at = 0; at < text.size();) {
      if (!parseListRecord(text, &at, &record)) return {};
      found.push_back(record.ino);
    }
    return found;
  }
};

// More lists at once than are kept open.
TEST_F(DirLists, EveryRecordInItsListInOrder) {
  using Inodes = std::vector<uint64_t>;
  for (uint64_t ino = 1; ino <= 3; ++ino) {
    for (uint64_t top = 1000; top < 1040; ++top) {
      ASSERT_EQ(add(top, 1, ino, kOpCrDir, true), 0);
      ASSERT_EQ(add(top, 1, ino + 10, kOpDelDir, false), 0);
      ASSERT_EQ(add(top, 2, ino + 20, kOpMoveFile, false), 0);
    }
  }
  int rc = 0;
  closeDirLists(&rc);
  EXPECT_EQ(rc, 0);
  for (uint64_t top = 1000; top < 1040; ++top) {
    EXPECT_EQ(inodes(dirSetList(top, true, 1)), (Inodes{1, 2, 3}));
    EXPECT_EQ(inodes(dirSetList(top, false, 1)), (Inodes{11, 12, 13}));
    EXPECT_EQ(inodes(dirSetMoveList(top, false, 2)), (Inodes{21, 22, 23}));
  }
}

TEST_F(DirLists, FailuresAreReported) {
  ASSERT_EQ(add(7, 1, 300, kOpCrDir, true), 0);
  int rc = EIO;  // an earlier one counts
  closeDirLists(&rc);
  EXPECT_EQ(rc, EIO);
  settings.shareDir += "/gone";
  EXPECT_EQ(add(8, 1, 300, kOpCrDir, true), ENOENT);
  settings.shareDir.resize(settings.shareDir.size() - 5);
}

}  // namespace
