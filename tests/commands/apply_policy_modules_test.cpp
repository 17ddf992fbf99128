// What the policy engine reads and how it divides its work.

#include <gtest/gtest.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>

#include "btrfs/local_nodes.h"
#include "commands/ktapplypolicy/batcher.h"
#include "commands/ktapplypolicy/policy_file.h"
#include "commands/ktapplypolicy/record_list.h"

namespace kest {
namespace {

using Words = std::vector<std::string>;

TEST(PolicyFile, OneScriptIsFoundAndNothingMisread) {
  ScriptRule rule;
  std::string problem;
  ASSERT_TRUE(
      parsePolicy("/* RULE */ rule 'EXTERNAL LIST' where x\n"
                  "rule 'r' external list 'l' exec '/opt/it''s/tool' opts ' -j ''a b'' -q '",
                  &rule, &problem))
      << problem;
  EXPECT_EQ(rule.exec, "/opt/it's/tool");
  EXPECT_EQ(rule.options, (Words{"-j", "a b", "-q"}));
  const std::string list = "RULE EXTERNAL LIST 'a' ", good = list + "EXEC '/x' ";
  EXPECT_TRUE(parsePolicy(good + "RULE 'noop' LIST 'all'", &rule, &problem)) << problem;
  for (const std::string &text : {list, good, good + "ESCAPE '%'", good + "OPTS 'it''s'",
                                  good + "EXEC '/y'", good + good, list + "EXEC ''"}) {
    EXPECT_EQ(parsePolicy(text, &rule, &problem), text == good) << text;
  }
}

TEST(PolicyFile, SplitsLikeAShellAndExpandsNothing) {
  const std::pair<const char *, Words> cases[] = {
      {"''x \"\" y''", {"x", "", "y"}},
      {R"(a\ b 'c\d' "e\"f\g\\")", {"a b", "c\\d", "e\"f\\g\\"}},
      {"'it'\\''s' a'b c'd", {"it's", "ab cd"}},
      {"one\\\ntwo\t3 ", {"onetwo", "3"}},
      {"$HOME `id` $(id) * ~ #x ;|&>", {"$HOME", "`id`", "$(id)", "*", "~", "#x", ";|&>"}},
  };
  Words words;
  std::string problem;
  for (const auto &[text, expected] : cases) {
    EXPECT_TRUE(splitWords(text, &words, &problem)) << text;
    EXPECT_EQ(words, expected) << text;
  }
  for (const char *text : {"'a", "\"a\\\"", "a\\"})
    EXPECT_FALSE(splitWords(text, &words, &problem)) << text;
}

std::string listLine(int64_t aggregate, uint64_t inode, const std::string &path,
                     const std::string &operation) {
  char head[100];
  snprintf(head, sizeof(head), "%lld:0:%11llx:0:0:0:0:0:%zu!", static_cast<long long>(aggregate),
           static_cast<unsigned long long>(inode), path.size());
  return head + path + ":0!;" + std::to_string(operation.size()) + "!" + operation + "\n";
}

TEST(RecordList, PathsAreFoundByLengthAlone) {
  const std::string paths[] = {"/a", "/x:0!;9!7,0,0,0,0\n1:0:5:", "/\n\t\\ \xff!;",
                               std::string(4095, 'p')};
  char file[] = "/tmp/record-list-XXXXXX";
  int fd = mkstemp(file);
  auto put = [fd](const std::string &text) {
    return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  };
  // More than one buffer, so that records lie across its end.
  std::string text;
  for (int i = 0; i < 1200; i++)
    text += listLine(i / 7, 0x123456789abcdef0u + i, paths[i % 4], "1,4096,8192,0,1");
  RecordList list;
  ASSERT_TRUE(put(text) && list.open(file) == 0 && put(listLine(9, 9, "/later", "7,0,0,0,0")));
  for (int round = 0; round < 2; round++) {
    ListRecord record;
    for (int i = 0; i < 1200; i++) {
      ASSERT_EQ(list.next(&record), 1) << list.problem();
      ASSERT_EQ(record.path, paths[i % 4]);
      ASSERT_EQ(record.aggregate, i / 7);
      ASSERT_EQ(record.inode, 0x123456789abcdef0u + i);
      ASSERT_EQ(record.operation, "1,4096,8192,0,1");
    }
    EXPECT_EQ(list.next(&record), 0);
    list.rewind();
  }
  close(fd);
  unlink(file);
}

TEST(RecordList, DamagedRecordsAreRefused) {
  const std::string good = listLine(1, 301, "/c:d!e\nf", "2,0,4096,1,0");
  ListRecord record;
  std::string problem;
  size_t at = 0;
  for (size_t cut = 0; cut < good.size(); cut++) {
    EXPECT_EQ(parseListRecord(good.substr(0, cut), &record, &problem, &at), 0u) << cut;
    EXPECT_LE(at, cut);
  }
  EXPECT_EQ(parseListRecord(good, &record, &problem, &at), good.size());
  const std::string head = "0:0:12c:0:0:0:0:0:";
  for (const std::string &bad :
       {head + "-1!/a:0!;9!7,0,0,0,0\n", head + "5!/a/b:0!;9!7,0,0,0,0\n", head + "0!:0!;9!7,0,0,0,0\n",
        head + "4!/a/b:0!;8!7,0,0,0,0\n", "0:0:xyz" + good.substr(good.find(":0:0:0")),
        head + "4!/a/b:0!;9!7,0 0,0,0\n", head + "4!/a" + '\0' + "b:0!;9!7,0,0,0,0\n",
        listLine(0, 300, std::string(4096, 'x'), "7,0,0,0,0")}) {
    EXPECT_EQ(parseListRecord(bad, &record, &problem, &at), 0u) << bad;
  }
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
      {"ranges of several aggregates", 100, {{1, 65536}, {1, 65536}, {2, 65536}}, {1, 1, 2}},
      {"ranges of one aggregate", 2, {{5, 65536}}, {2, 3}},
      {"ranges with other records", 100, {{5}, {1, 65536}, {5}, {1, 65536}, {5}}, {11, 6}},
      {"small ranges", 100, {{1, 65535}, {1, 65535}, {2, 65536}, {1, 65535}}, {5}},
      {"batches of one", 1, {{2}, {1}, {3}}, {1, 1, 1, 1, 1, 1}},
  };
  for (const auto &one : cases) {
    Batcher batcher(one.batch_size);
    std::vector<size_t> sizes;
    uint64_t added = 0, taken = 0;
    auto takeAll = [&] {
      for (Batch batch; batcher.take(&batch);) {
        sizes.push_back(batch.size());
        for (const ListRecord &record : batch) EXPECT_EQ(record.inode, taken++) << one.name;
      }
    };
    for (const Aggregate &aggregate : one.aggregates) {
      for (int n = 0; n < aggregate.records; n++) {
        ListRecord record;
        record.aggregate = &aggregate - one.aggregates.data();
        record.inode = added++;
        record.operation = "7,0,0,0,0";
        if (aggregate.range) record.operation = "2,0," + std::to_string(aggregate.range) + ",0,0";
        batcher.add(record);
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
}  // namespace kest
