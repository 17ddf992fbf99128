// What the policy engine reads and how it divides its work.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <numeric>

#include "btrfs/local_nodes.h"
#include "commands/ktapplypolicy/batch_file.h"
#include "commands/ktapplypolicy/batcher.h"
#include "commands/ktapplypolicy/policy_file.h"
#include "commands/ktapplypolicy/record_list.h"
#include "commands/ktapplypolicy/worker_slots.h"

namespace kest {
namespace {

using Words = std::vector<std::string>;

TEST(PolicyFile, FindsScriptAndWords) {
  ScriptRule rule;
  std::string problem;
  ASSERT_TRUE(parsePolicy(
      "RULE EXTERNAL LIST 'all'  EXEC '/opt/it''s/tool' OPTS ' -d /m -j ''a b'' -q  -c 42'\n"
      "          RULE 'noop' LIST 'all' DIRECTORIES_PLUS\n"
      "          SHOW('d')WHERE MODE LIKE 'd%'\n",
      &rule, &problem))
      << problem;
  EXPECT_EQ(rule.exec, "/opt/it's/tool");
  EXPECT_EQ(rule.options, (Words{"-d", "/m", "-j", "a b", "-q", "-c", "42"}));
  ASSERT_TRUE(parsePolicy(
      "/* RULE */ rule 'EXTERNAL LIST' where x rule 'r' external list 'l' exec '/x'", &rule, &problem));
  EXPECT_EQ(rule.exec, "/x");
  EXPECT_TRUE(rule.options.empty());
}

TEST(PolicyFile, RefusesWhatItWouldMisread) {
  for (const char *text :
       {"", "RULE 'noop' LIST 'all'", "RULE EXTERNAL LIST 'a' EXEC '/x",
        "RULE EXTERNAL LIST 'a' OPTS 'x'", "RULE EXTERNAL LIST 'a' EXEC ''",
        "RULE EXTERNAL LIST 'a' EXEC '/x' ESCAPE '%'", "RULE EXTERNAL LIST 'a' EXEC '/x' OPTS 'it''s'",
        "RULE EXTERNAL LIST 'a' EXEC '/x' EXEC '/y'",
        "RULE EXTERNAL LIST 'a' EXEC '/x' RULE EXTERNAL LIST 'b' EXEC '/y'"}) {
    ScriptRule rule;
    std::string problem;
    EXPECT_FALSE(parsePolicy(text, &rule, &problem)) << text;
    EXPECT_FALSE(problem.empty()) << text;
  }
}

TEST(PolicyFile, SplitsLikeAShellAndExpandsNothing) {
  struct {
    const char *text;
    Words words;
  } cases[] = {
      {"  ", {}},
      {"a\tb\n c", {"a", "b", "c"}},
      {"''x \"\" y''", {"x", "", "y"}},
      {R"(a\ b 'c\d' "e\"f\g\\")", {"a b", "c\\d", "e\"f\\g\\"}},
      {"'it'\\''s' a'b c'd", {"it's", "ab cd"}},
      {"one\\\ntwo", {"onetwo"}},
      {"$HOME `id` $(id) * ~ #x ;|&>", {"$HOME", "`id`", "$(id)", "*", "~", "#x", ";|&>"}},
  };
  for (const auto &one : cases) {
    Words words;
    std::string problem;
    EXPECT_TRUE(splitWords(one.text, &words, &problem)) << one.text;
    EXPECT_EQ(words, one.words) << one.text;
  }
  Words words;
  std::string problem;
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

class ListFile : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_GE(fd_ = mkstemp(path_), 0); }
  void TearDown() override {
    close(fd_);
    unlink(path_);
  }
  void put(const std::string &text) {
    ASSERT_EQ(write(fd_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  char path_[32] = "/tmp/record-list-XXXXXX";
  int fd_ = -1;
};

TEST_F(ListFile, PathsAreFoundByLengthAlone) {
  const std::string paths[] = {"/a", "/x:0!;9!7,0,0,0,0\n1:0:5:", "/\n\t\\ \xff!;",
                               std::string(4095, 'p')};
  // More than one buffer, so that records lie across its end.
  std::string text;
  for (int i = 0; i < 1200; i++) {
    text += listLine(i / 7, 0x123456789abcdef0u + i, paths[i % 4], "1,4096,8192,0,1");
  }
  put(text);
  RecordList list;
  ASSERT_EQ(list.open(path_), 0);
  put(listLine(9, 9, "/appended later", "7,0,0,0,0"));
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
}

TEST_F(ListFile, EveryTruncationIsFound) {
  std::string first = listLine(0, 300, "/a/b", "7,0,0,0,0");
  std::string second = listLine(1, 301, "/c:d!e\nf", "2,0,4096,1,0");
  for (size_t cut = 1; cut < second.size(); cut++) {
    ASSERT_EQ(ftruncate(fd_, 0), 0);
    lseek(fd_, 0, SEEK_SET);
    put(first + second.substr(0, cut));
    RecordList list;
    ListRecord record;
    ASSERT_EQ(list.open(path_), 0);
    EXPECT_EQ(list.next(&record), 1);
    EXPECT_EQ(list.next(&record), -1) << "cut at " << cut;
    size_t at = list.problem().find("at byte ");
    ASSERT_NE(at, std::string::npos);
    size_t byte = std::stoul(list.problem().substr(at + 8));
    EXPECT_GE(byte, first.size());
    EXPECT_LE(byte, first.size() + cut);
  }
}

TEST(RecordList, DamagedRecordsAreRefused) {
  std::string good = listLine(0, 300, "/a/b", "7,0,0,0,0");
  ListRecord record;
  std::string problem;
  size_t at;
  ASSERT_EQ(parseListRecord(good, &record, &problem, &at), good.size());
  for (std::string bad : {std::string("0:0:12c:0:0:0:0:0:-1!/a:0!;9!7,0,0,0,0\n"),
                          std::string("0:0:12c:0:0:0:0:0:5!/a/b:0!;9!7,0,0,0,0\n"),
                          std::string("0:0:12c:0:0:0:0:0:0!:0!;9!7,0,0,0,0\n"),
                          std::string("0:0:12c:0:0:0:0:0:4!/a/b:0!;8!7,0,0,0,0\n"),
                          std::string("0:0:xyz:0:0:0:0:0:4!/a/b:0!;9!7,0,0,0,0\n"),
                          std::string("0:0:12c:0:0:0:0:0:4!/a/b:0!;9!7,0 0,0,0\n"),
                          std::string("0:0:12c:0:0:0:0:0:4!/a\0b:0!;9!7,0,0,0,0\n", 40),
                          std::string("\n"), listLine(0, 300, std::string(4096, 'x'), "7,0,0,0,0")}) {
    EXPECT_EQ(parseListRecord(bad, &record, &problem, &at), 0u) << bad;
  }
}

TEST(BatchFile, EscapesThePathAndNothingElse) {
  ListRecord record;
  record.inode = UINT64_MAX;
  record.operation = "1,0,4096,0,0";
  record.path = "/a \\b\nc\td -- :!";
  EXPECT_EQ(formatBatchLine(record),
            "18446744073709551615 0 0  1,0,4096,0,0 -- /a \\\\b\\nc\\td -- :!\n");
}

TEST(Batcher, BatchSizes) {
  struct Aggregate {
    int records;
    int range = 0;  // bytes
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
    std::vector<uint64_t> order;
    Batch batch;
    auto takeAll = [&] {
      while (batcher.take(&batch)) {
        sizes.push_back(batch.size());
        for (const ListRecord &record : batch) order.push_back(record.inode);
      }
    };
    uint64_t inode = 0;
    for (size_t i = 0; i < one.aggregates.size(); i++) {
      for (int n = 0; n < one.aggregates[i].records; n++) {
        ListRecord record;
        record.aggregate = static_cast<int64_t>(i);
        record.inode = inode++;
        record.operation = one.aggregates[i].range ? "2,0," + std::to_string(one.aggregates[i].range) + ",0,0" : "7,0,0,0,0";
        batcher.add(record);
        takeAll();
      }
    }
    batcher.finish();
    takeAll();
    EXPECT_EQ(sizes, one.batches) << one.name;
    std::vector<uint64_t> expected(inode);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(order, expected) << one.name;
  }
}

TEST(Nodes, OnlyThisMachine) {
  char host[256] = "";
  gethostname(host, sizeof(host) - 1);
  std::string foreign;
  for (std::string nodes :
       {std::string("all"), std::string("localhost"), std::string(host), "all," + std::string(host)}) {
    EXPECT_TRUE(nodesAreLocal(nodes, &foreign)) << nodes;
  }
  EXPECT_FALSE(nodesAreLocal("localhost,elsewhere", &foreign));
  EXPECT_EQ(foreign, "elsewhere");
  EXPECT_FALSE(nodesAreLocal("", &foreign));
}

// A nested engine sees the slots of its outer one, runs on the lent slot first, and gives all back when
// it is killed.
TEST(WorkerSlots, SharedLentAndGivenBack) {
  unsetenv(kWorkerSlotVariable);
  setenv(kMaxWorkersVariable, "3", 1);
  WorkerSlots slots;
  WorkerSlots::Slot mine, taken;
  std::string problem;
  ASSERT_TRUE(slots.open(&problem)) << problem;
  EXPECT_EQ(slots.budget(), 3u);
  ASSERT_TRUE(slots.tryAcquire(&mine));

  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t child = fork();
  if (child == 0) {
    setenv(kWorkerSlotVariable, slots.environment(mine).c_str(), 1);
    WorkerSlots nested, sibling;
    WorkerSlots::Slot lent, second, third;
    bool good = nested.open(&problem) && sibling.open(&problem) && nested.tryAcquire(&lent) &&
                lent.index == mine.index && lent.depth == 1 && nested.tryAcquire(&second) &&
                second.depth == 0 && sibling.tryAcquire(&third) && third.depth == 0 &&
                !sibling.tryAcquire(&third) && !nested.tryAcquire(&third);
    nested.release(lent);
    good = good && sibling.tryAcquire(&third) && third.depth == 1;
    char answer = good ? 'y' : 'n';
    if (write(ready[1], &answer, 1) == 1) pause();
    _exit(1);
  }
  char answer = 0;
  ASSERT_EQ(read(ready[0], &answer, 1), 1);
  EXPECT_EQ(answer, 'y');
  EXPECT_FALSE(slots.tryAcquire(&taken));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(slots.tryAcquire(&taken));
  EXPECT_TRUE(slots.tryAcquire(&taken));
  EXPECT_FALSE(slots.tryAcquire(&taken));
  close(ready[0]);
  close(ready[1]);

  // A worker whose engine has gone must not become an outermost run of its own.
  setenv(kWorkerSlotVariable, (std::to_string(child) + ":3:0:0").c_str(), 1);
  WorkerSlots orphan;
  EXPECT_FALSE(orphan.open(&problem));
  unsetenv(kWorkerSlotVariable);
  for (const char *wrong : {"0", "-1", "two", "5000"}) {
    setenv(kMaxWorkersVariable, wrong, 1);
    EXPECT_FALSE(WorkerSlots().open(&problem)) << wrong;
  }
  unsetenv(kMaxWorkersVariable);
}

}  // namespace
}  // namespace kest
