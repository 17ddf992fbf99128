// How passes divide the results of the difference scan. This test replaces the library's calls.
#include "scan/scan_pass.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "run/run_handles.h"
#include "run/settings.h"
#include "scan/diff_table.h"

static std::vector<uint64_t> scanned;  // inodes that are still to come
static int openError = ENOENT;

int kest_next_inode64(kest_iscan_t *, uint64_t, const kest_iattr64_t **attr) {
  static kest_iattr64_t record;
  *attr = nullptr;
  if (scanned.empty()) return 0;
  record.ia_inode = scanned.front();
  scanned.erase(scanned.begin());
  *attr = &record;
  return 0;
}

int kest_idifference(kest_iscan_t *, uint64_t) {
  return 0;
}

int64_t kest_passed_over(kest_iscan_t *) {
  return 0;
}

kest_ifile_t *kest_iopen64(kest_fssnap_handle_t *, uint64_t, int, const void *, const char *) {
  errno = openError;
  return nullptr;
}

namespace {

TEST(ScanPass, PassesDivideTheRangeAndTheLastReachesTheEnd) {
  ASSERT_TRUE(allocDiffTable());
  scan = {.maxIno = 5000, .diffItemLimit = 2};
  handles.rootIno = 256;
  scanned = {5, 9, 256, 300};
  for (const bool last : {false, true}) {
    ASSERT_TRUE(scanPass());
    EXPECT_EQ(scan.finalPass, last);
    EXPECT_EQ(scan.itemCnt, last ? 1 : 2);
    for (uint64_t ino : {1, 5, 9}) EXPECT_EQ(inPassRange(ino), !last) << ino;
    for (uint64_t ino : {10, 300, 5000}) EXPECT_EQ(inPassRange(ino), last) << ino;
  }
  EXPECT_TRUE(findItem(5) && findItem(300));
  EXPECT_FALSE(findItem(256)) << "the root is handled apart";
  scanned = {400};
  openError = EIO;
  EXPECT_EQ(scanPass().err, EIO) << "an inode that cannot be opened is not a deleted one";
  freeDiffTable();
}

}  // namespace
