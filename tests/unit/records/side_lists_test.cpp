#include "records/side_lists.h"

#include <cerrno>

#include "formats/list_record.h"
#include "unit/support/work_area.h"

namespace {

class SideLists : public WorkArea {};

TEST_F(SideLists, CountOnlyWhatWasWritten) {
  settings.role = Role::kWorker;
  settings.unitSize = 1;
  aggregates = {};
  const int64_t count_before = opCount;
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(listNewDir("/m/a", 300));
  // A record that overflows an aggregate opens the next one with count 0.
  std::string expected;
  for (const int number : {0, 1, 1}) expected += formatListRecord(number, 300, "/m/a", {kOpCrDir});
  EXPECT_EQ(get(kDirNew), expected);
  settings.shareDir += "/gone";
  EXPECT_EQ(listNewDir("/m/a", 300).err, ENOENT);
  settings.shareDir = area_;
  EXPECT_EQ(opCount - count_before, 3);
  EXPECT_EQ(aggregates.regPend.uCount, 1);
}

}  // namespace
