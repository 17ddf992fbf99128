// The work directory's names, the trace log, the marker and list files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "run/fatal_error.h"
#include "run/number_set.h"
#include "run/path.h"
#include "run/progress.h"
#include "run/settings.h"
#include "run/snapshot_table.h"
#include "run/trace_buffer.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

class WorkDir : public testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/unit-run-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    settings = {};
    settings.shareDir = dir;
  }
  void TearDown() override {
    closeTraceLog();
    std::filesystem::remove_all(settings.shareDir);
    settings = {};
  }
  std::string contents(const char *name) {
    std::string text;
    EXPECT_TRUE(readWholeFile(workPath(name), &text)) << name;
    return text;
  }
};

TEST_F(WorkDir, Names) {
  const std::string d = settings.shareDir;
  EXPECT_EQ(workPath(kOpList), d + "/opList");
  EXPECT_EQ(tempLocation(1029), d + "/MOVE_5/_1029");
  EXPECT_EQ(cloneDeleteLocation(1029), d + "/MOVE_5/_1029.delclone");
  EXPECT_EQ(destinationFile(1023), d + "/MOVE_1023/1023_");
  EXPECT_EQ(newParentFile(1024), d + "/MOVE_0/1024.clone.newParent");
  EXPECT_EQ(dirSetList(5000000000, true, 12), d + "/DelDir_5000000000/12");
  EXPECT_EQ(dirSetMoveList(7, false, 0), d + "/NewDir_7/0.move");
  EXPECT_EQ(checkpointFile(42, "node1", 7), d + "/checkpoint/checkpoint.42.node1.7");
  EXPECT_EQ(checkpointPrefix(42), "checkpoint.42.");
  EXPECT_EQ(cloneDeleteList(1001), d + "/clone.del.1001");
  EXPECT_EQ(makeWorkDirectory(bucketDir(3)), 0);
  EXPECT_EQ(makeWorkDirectory(bucketDir(3)), 0);
  EXPECT_EQ(makeWorkDirectory(d + "/no/such"), ENOENT);
}

TEST_F(WorkDir, PathsStayBelow4096Bytes) {
  std::string dir = "/" + std::string(4000, 'x');
  const size_t room = kPathMax - 3 - 1 - dir.size();
  EXPECT_TRUE(appendPath(dir, std::string(room, 'y')));
  EXPECT_FALSE(settings.path2long);
  cutPath(dir);
  EXPECT_EQ(dir.size(), 4001u);
  {
    PathName name(dir, std::string(room + 1, 'y'));
    EXPECT_FALSE(name.ok());
    EXPECT_EQ(dir.size(), 4001u);
  }
  EXPECT_TRUE(settings.path2long);
  settings.shareDir = dir;
  EXPECT_EQ(workPath(std::string(room + 1, 'z')), "");
  settings.shareDir.clear();
}

TEST(Path, CutAndLiesIn) {
  struct {
    const char *path, *cut;
  } cuts[] = {{"", ""}, {"/", "/"}, {"/a", "/"}, {"/a/", "/a"}, {"/a/b", "/a"}, {"/a/b/", "/a/b"}};
  for (const auto &test : cuts) {
    std::string path = test.path;
    cutPath(path);
    EXPECT_EQ(path, test.cut) << test.path;
  }
  EXPECT_TRUE(liesIn("/mnt/home/a", "/mnt/home"));
  EXPECT_TRUE(liesIn("/mnt/home", "/mnt/home"));
  EXPECT_FALSE(liesIn("/mnt/home2", "/mnt/home"));
  EXPECT_FALSE(liesIn("/mnt", "/mnt/home"));
  EXPECT_TRUE(liesIn("/mnt", "/"));
}

TEST_F(WorkDir, TraceLinesWaitForAMomentOnly) {
  std::string lines;
  const auto written = [&] {
    std::string text;
    for (std::stringstream all(contents(kErrorLog)); std::getline(all, text, ' ');)
      if (text.starts_with("line")) lines += text;
    return lines.size();
  };
  usleep(2000);
  traceLog(" line0 \n");
  EXPECT_EQ(written(), 5u);  // the last write is long past
  std::string expected = "line0";
  for (int i = 1; i < 2000; ++i) {
    traceLog(" line%d \n", i);
    expected += "line" + std::to_string(i);
  }
  lines.clear();
  EXPECT_GT(written() + 16 * 1024, expected.size());
  lines.clear();
  flushTraceLines();
  written();
  EXPECT_EQ(lines, expected);
}

TEST_F(WorkDir, TraceLinesCarryTheirPrefix) {
  settings.phase = 51;
  settings.pass = 3;
  errno = ENOSPC;
  traceLog("crDir: path %s, rc %d\n", "/m/%s", -1);
  traceLog("%s\n", std::string(5000, 'x').c_str());
  EXPECT_EQ(errno, ENOSPC);
  flushTraceLines();
  const std::string text = contents(kErrorLog);
  const std::string prefix = R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\]\[[^\]\n]+\]\[pid:)" +
                             std::to_string(getpid()) + R"( phase:51 pass:3\]: )";
  EXPECT_TRUE(std::regex_match(text.substr(0, text.find('\n')),
                               std::regex(prefix + "crDir: path /m/%s, rc -1")))
      << text.substr(0, 200);
  EXPECT_TRUE(text.ends_with(std::string(5000, 'x') + "\n"));
  testing::internal::CaptureStdout();
  dumpErrorLog();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "---------------------\n" + text);
  for (bool *quiet : {&settings.Debug, &settings.path2long}) {
    *quiet = !*quiet;
    testing::internal::CaptureStdout();
    dumpErrorLog();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    *quiet = !*quiet;
  }
  settings.shareDir += "-gone";
  traceLog("nowhere\n");
  EXPECT_FALSE(std::filesystem::exists(settings.shareDir));
  settings.shareDir.resize(settings.shareDir.size() - 5);
}

TEST_F(WorkDir, FatalErrorMarker) {
  EXPECT_EQ(getFatalError(), 0);
  EXPECT_EQ(setFatalError(28), 0);
  EXPECT_EQ(setFatalError(5), 0);
  EXPECT_EQ(contents(kFatalError), "28\n5\n");
  EXPECT_EQ(getFatalError(), 28);
  for (const char *text : {"0\n", "abc\n", "", "\n7\n"}) {
    std::ofstream(workPath(kFatalError), std::ios::trunc) << text;
    EXPECT_EQ(getFatalError(), -1) << text;
  }
  std::filesystem::remove(workPath(kFatalError));
  EXPECT_EQ(setFatalError(0), 0);
  EXPECT_EQ(getFatalError(), EIO);
  settings.shareDir += "/gone";
  EXPECT_EQ(unsavedFatalError(), 0);
  EXPECT_EQ(setFatalError(1), -1);
  cutPath(settings.shareDir);
  EXPECT_EQ(unsavedFatalError(), 1);
  EXPECT_EQ(getFatalError(), 1);
}

TEST_F(WorkDir, ProgressEveryThousandInTheMaster) {
  testing::internal::CaptureStderr();
  opCount = 998;
  reportOpCount(false);
  reportOpCount(false);
  reportOpCount(true);
  settings.phase = 3;
  opCount = 1999;
  reportOpCount(false);
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(
      std::regex_match(text, std::regex(R"(\[.{19}\] 1000 operations have been added to list\.\n)"
                                        R"(\[.{19}\] 1001 operations have been added to list\.\n)")))
      << text;
}

TEST_F(WorkDir, ListFilesKeepWholeRecords) {
  using Mode = WorkFile::Mode;
  const std::string record = std::string(70000, 'r') + "\n";
  auto file = WorkFile::open(workPath("list"), Mode::kTruncate);
  auto other = WorkFile::open(workPath("list"), Mode::kShared);
  ASSERT_TRUE(file && other);
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(file->append(record), 0);
    ASSERT_EQ(other->append("between\n"), 0);
  }
  int rc = 0;
  closeWorkFile(file, "list", &rc);
  closeWorkFile(other, "list", &rc);
  EXPECT_EQ(rc, 0);
  EXPECT_FALSE(file);
  std::string rest = contents("list");
  EXPECT_EQ(rest.size(), 5 * (record.size() + 8));
  for (int i = 0; i < 10; ++i) {
    const size_t end = rest.find('\n') + 1;
    ASSERT_TRUE(end == 8 || end == record.size());
    rest.erase(0, end);
  }
  file = WorkFile::open(workPath("list"), Mode::kKeep);
  ASSERT_EQ(file->append("more\n"), 0);
  EXPECT_EQ(file->close(), 0);
  EXPECT_TRUE(contents("list").ends_with("\nmore\n"));
  EXPECT_TRUE(contents("list").size() > record.size());
}

TEST_F(WorkDir, AFullDiskIsReportedAtTheClose) {
  auto file = WorkFile::open("/dev/full", WorkFile::Mode::kKeep);
  ASSERT_TRUE(file);
  ASSERT_EQ(file->append("record\n"), 0);
  int rc = 0;
  testing::internal::CaptureStderr();
  closeWorkFile(file, "cpList", &rc);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Error flushing work file cpList: No space left on device\n");
  EXPECT_EQ(rc, ENOSPC);
  flushTraceLines();
  EXPECT_NE(contents(kErrorLog).find("Error flushing work file cpList"), std::string::npos);

  file = WorkFile::open("/dev/full", WorkFile::Mode::kKeep);
  ASSERT_EQ(file->append("record\n"), 0);
  rc = 7;
  testing::internal::CaptureStderr();
  closeWorkFile(file, "", &rc);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("work file NULL"), std::string::npos);
  EXPECT_EQ(rc, 7);
  EXPECT_FALSE(WorkFile::open("", WorkFile::Mode::kTruncate));
  ASSERT_EQ(symlink("/etc/passwd", workPath("link").c_str()), 0);
  EXPECT_FALSE(WorkFile::open(workPath("link"), WorkFile::Mode::kShared));
}

TEST(SnapshotTable, IsReadBehindTheHeader) {
  std::string text =
      "Snapshots in file system Directory\nDirectory   Id  Status  Created  Fileset\n"
      "s1   300 Valid Mon Jan 1 00:00:00 2024 home\n"
      "with\\040blank\\134 301 Valid Mon Jan 1 00:00:00 2024 home\n"
      "short 302 Valid Mon\n"
      "word id Valid Mon Jan 1 00:00:00 2024 home\n";
  for (int i = 0; i < 1000; ++i)
    text += "n" + std::to_string(i) + " " + std::to_string(1000 + i) + " Valid a b c d e home\n";
  const SnapshotTable table = parseSnapshotList(text);
  EXPECT_EQ(table.size(), 1002u);
  EXPECT_EQ(table.at(300), "s1");
  EXPECT_EQ(table.at(301), "with blank\\");
  EXPECT_EQ(table.at(1999), "n999");
  EXPECT_TRUE(parseSnapshotList("s1 300 Valid a b c d e home\n").empty());
}

TEST(NumberSet, HoldsWhatWasInserted) {
  NumberSet set;
  EXPECT_FALSE(set.contains(0));
  // Neighbours, and numbers that differ in their highest bits alone.
  const auto number = [](uint64_t i) { return i % 2 == 0 ? i : i << 44; };
  for (uint64_t i = 0; i < 20000; ++i) {
    ASSERT_FALSE(set.contains(number(i))) << i;
    ASSERT_TRUE(set.insert(number(i))) << i;
    ASSERT_FALSE(set.insert(number(i / 2))) << i;
  }
  for (uint64_t i = 0; i < 20000; ++i) ASSERT_TRUE(set.contains(number(i))) << i;
  EXPECT_FALSE(set.contains(20000));
}

}  // namespace
