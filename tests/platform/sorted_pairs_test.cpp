// Large sets in few bytes: pairs come out sorted and without duplicates.
#include "diff/sorted_pairs.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace {

using namespace kest;

// Several runs to merge, sorted and not, with duplicates and numbers of every length.
TEST(SortedPairs, HoldWhatASetHolds) {
  std::mt19937_64 random(7);
  for (const size_t count : {0, 1, 63, 64, 65, 65536, 300000}) {
    std::set<NumberPair> want;
    PairSorter sorter;
    for (size_t i = 0; i < count; ++i) {
      const unsigned shift = static_cast<unsigned>(random() % 64);
      const NumberPair pair = i % 3 == 0   ? NumberPair{i, 3}
                              : i % 3 == 1 ? NumberPair{random() % 5000, random() % 5000}
                                           : NumberPair{random() >> shift, random() >> (63 - shift)};
      want.insert(pair);
      sorter.add(pair);
    }
    const SortedPairs pairs = sorter.finish();
    ASSERT_EQ(want.size(), pairs.size());
    NumberPair found;
    SortedPairs::Cursor all = pairs.begin();
    for (const NumberPair &pair : want) ASSERT_TRUE(all.next(&found) && found == pair);
    EXPECT_FALSE(all.next(&found));
    for (int i = 0; i < 2000; ++i) {
      const NumberPair from{random() >> (random() % 64), random() % 5000};
      const auto expected = want.lower_bound(from);
      ASSERT_EQ(expected != want.end(), pairs.from(from).next(&found)) << from.first;
      if (expected != want.end()) {
        ASSERT_EQ(*expected, found);
      }
    }
    EXPECT_TRUE(sorter.finish().empty());
  }
}

TEST(SortedPairs, ACloseMillionTakesTwoBytesEach) {
  PairSorter sorter;
  for (uint64_t i = 0; i < 1000000; ++i) sorter.add({1000 + i * 3, 0x23});
  EXPECT_LE(sorter.finish().memory(), 3000000u);
}

}  // namespace
