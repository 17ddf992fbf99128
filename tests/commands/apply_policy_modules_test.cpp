// How the policy engine divides its work, and where it accepts files.

#include <gtest/gtest.h>
#include <unistd.h>

#include "base/local_nodes.h"
#include "engine/batcher.h"

namespace {

TEST(Batcher, BalancedBatchSizes) {
  EXPECT_EQ(balancedBatchSize(40, 4, false, 1000), 400u) << "a start costs more than such a share";
  EXPECT_EQ(balancedBatchSize(40, 4, true, 1000), 100u);
  EXPECT_EQ(balancedBatchSize(4000, 4, false, 1000), 501u);
  EXPECT_EQ(balancedBatchSize(1000000, 4, false, 1000), 1000u);
  EXPECT_EQ(balancedBatchSize(40, 4, false, 7), 7u);
}

TEST(Batcher, BatchSizes) {
  struct Aggregate {
    int records, range = 0;  // range: bytes
  };
  struct {
    const char *name;
    size_t batch_size;
    std::vector<Aggregate> aggregates;
    std::vector<size_t> batches;
  } cases[] = {
      {"nothing", 100, {}, {}},
      {"aggregates one longer than a batch", 100, {{100}, {101}, {101}, {3}}, {100, 101, 101, 3}},
      {"long aggregate", 100, {{250}}, {100, 100, 50}},
      {"remainder of one joins", 100, {{201}}, {100, 101}},
      {"remainder of two stands", 100, {{202}}, {100, 100, 2}},
      {"small ones share", 100, {{30}, {30}, {30}, {30}}, {90, 30}},
      {"one that does not fit is not cut", 100, {{60}, {50}, {50}}, {60, 100}},
      {"rest of a long one takes small ones", 100, {{150}, {20}, {40}}, {100, 70, 40}},
      {"ranges of several aggregates", 100, {{1, 8 << 20}, {1, 8 << 20}, {2, 8 << 20}}, {1, 1, 2}},
      {"ranges of one aggregate", 2, {{5, 8 << 20}}, {2, 3}},
      {"ranges with other records", 100, {{5}, {1, 8 << 20}, {5}, {1, 8 << 20}, {5}}, {11, 6}},
      {"small ranges", 100, {{1, 1 << 20}, {1, 1 << 20}, {2, 1 << 20}, {1, 1 << 20}}, {5}},
      {"batches of one", 1, {{2}, {1}, {3}}, {1, 1, 1, 1, 1, 1}},
  };
  for (const auto &one : cases) {
    Batcher batcher(one.batch_size);
    std::vector<size_t> sizes;
    uint64_t added = 0, taken = 0;
    auto takeAll = [&] {
      for (Batch batch; batcher.take(&batch);) {
        sizes.push_back(batch.size());
        for (const BatchRecord &record : batch)
          EXPECT_EQ(std::stoull(record.line), taken++) << one.name;
      }
    };
    for (const Aggregate &aggregate : one.aggregates) {
      Operation op{kOpDeleteFile};
      if (aggregate.range) op = {kOpRestoreDiffFile, 0, static_cast<uint64_t>(aggregate.range)};
      const std::string op_string = formatOpString(op);
      for (int n = 0; n < aggregate.records; n++) {
        ListedRecord record;
        record.aggregate = &aggregate - one.aggregates.data();
        record.ino = added++;
        record.opString = op_string;
        batcher.add(BatchRecord(record));
        takeAll();
      }
    }
    batcher.finish();
    takeAll();
    EXPECT_EQ(sizes, one.batches) << one.name;
    EXPECT_EQ(taken, added) << one.name;
  }
}

TEST(Nodes, OnlyThisMachine) {
  char host[256] = "";
  gethostname(host, sizeof(host) - 1);
  std::string foreign;
  for (const std::string &nodes : {std::string("all"), "localhost," + std::string(host)})
    EXPECT_TRUE(nodesAreLocal(nodes, &foreign)) << nodes;
  EXPECT_FALSE(nodesAreLocal("localhost,elsewhere", &foreign));
  EXPECT_EQ(foreign, "elsewhere");
  EXPECT_FALSE(nodesAreLocal("", &foreign));
}

}  // namespace
